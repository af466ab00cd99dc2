#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace nvo {

enum class LogLevel : int { debug = 0, info = 1, warn = 2, error = 3 };

/// A text on its way to the log.
struct LogEntry {
  LogLevel level;
  std::string text;
};

/// While it lives, what its thread logs is held back instead of written, so that work done ahead or side by
/// side can speak in its turn. Holders may be nested; what is left in one is dropped.
class HeldLog {
 public:
  HeldLog();
  ~HeldLog();
  HeldLog(const HeldLog&) = delete;
  HeldLog& operator=(const HeldLog&) = delete;

  /// The entries so far, in order.
  std::vector<LogEntry> take() { return std::exchange(entries_, {}); }

 private:
  friend class Logger;
  static thread_local HeldLog* innermost_;

  HeldLog* outer_;
  std::vector<LogEntry> entries_;
};

/// The process-wide log. A line is the local time, the level in a field of five characters between brackets
/// and the text, as in `14:03:22 [INFO ] Done: out.prt`. Control characters of the text are shown escaped.
/// Once a job has begun, a WARN or ERROR that says the same as an earlier one of the job is dropped: it would
/// stand once a strip or look-up. Lines go to the registered sinks, or to standard output when there are
/// none. Any thread may log; sinks run on the logging thread, outside all locks.
class Logger {
 public:
  using Sink = std::function<void(LogLevel, const std::string&)>;

  static Logger& instance();

  /// Lines below `level` are dropped before their pieces are formatted.
  void set_level(LogLevel level) { minimum_level_.store(level, std::memory_order_relaxed); }
  LogLevel level() const { return minimum_level_.load(std::memory_order_relaxed); }

  /// From here on every WARN and ERROR is new again.
  void begin_job();

  /// Streams the pieces (texts, numbers, paths) in order into one line.
  template <class... Pieces>
  void log(LogLevel level, const Pieces&... pieces) {
    if (level < minimum_level_.load(std::memory_order_relaxed)) return;
    std::ostringstream text;
    (text << ... << pieces);
    if (!text) throw std::bad_alloc();  // which the stream keeps to itself
    emit(level, std::move(text).str());
  }

  /// Logs what was held back.
  void log_entries(const std::vector<LogEntry>& entries) {
    for (const LogEntry& entry : entries) log(entry.level, entry.text);
  }

  /// Returns an id for `remove_sink`. While a sink is registered nothing is written to standard output.
  int add_sink(Sink sink);
  void remove_sink(int id);

 private:
  Logger() = default;
  void emit(LogLevel level, std::string text);
  bool is_repetition(LogLevel level, const std::string& text);

  std::atomic<LogLevel> minimum_level_{LogLevel::info};
  std::mutex sink_mutex_;
  std::vector<std::pair<int, Sink>> sinks_;
  int next_sink_id_ = 1;
  std::mutex console_mutex_;
  std::mutex said_mutex_;
  std::optional<std::unordered_set<std::uint64_t>> said_;  ///< hashes of the job's WARN and ERROR texts
};

template <class... Pieces>
void log_debug(const Pieces&... pieces) {
  Logger::instance().log(LogLevel::debug, pieces...);
}
template <class... Pieces>
void log_info(const Pieces&... pieces) {
  Logger::instance().log(LogLevel::info, pieces...);
}
template <class... Pieces>
void log_warn(const Pieces&... pieces) {
  Logger::instance().log(LogLevel::warn, pieces...);
}
template <class... Pieces>
void log_error(const Pieces&... pieces) {
  Logger::instance().log(LogLevel::error, pieces...);
}

}  // namespace nvo
