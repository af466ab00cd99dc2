#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/log.h"

namespace nvo::test {

/// Takes the log from `level` on while it lives, so that nothing reaches the console. Lines come without the
/// time of day, as in "[WARN ] text".
class LogCapture {
 public:
  explicit LogCapture(LogLevel level = LogLevel::debug)
      : old_level_(Logger::instance().level()),
        id_(Logger::instance().add_sink([this](LogLevel, const std::string& line) {
          const std::lock_guard lock(mutex_);
          lines_.push_back(line.substr(line.find('[')));
        })) {
    Logger::instance().set_level(level);
  }
  ~LogCapture() {
    Logger::instance().remove_sink(id_);
    Logger::instance().set_level(old_level_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// What was logged so far.
  std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  /// What was logged since the last call.
  std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }
  std::size_t count(const std::string& text) const {
    std::size_t found = 0;
    for (const std::string& line : lines())
      if (line.find(text) != std::string::npos) ++found;
    return found;
  }
  bool contains(const std::string& text) const { return count(text) != 0; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  LogLevel old_level_;
  int id_;
};

}  // namespace nvo::test
