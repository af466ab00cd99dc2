#include "core/log.h"

#include <cstdio>
#include <ctime>

#include "core/fnv1a.h"
#include "core/platform/clock.h"
#include "core/text.h"

namespace nvo {
namespace {

const char* level_name(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "DEBUG";
    case LogLevel::info:
      return "INFO ";
    case LogLevel::warn:
      return "WARN ";
    case LogLevel::error:
      return "ERROR";
  }
  return "?????";
}

std::string format_line(LogLevel level, const std::string& text) {
  const std::tm now = platform::local_time(std::time(nullptr));
  char stamp[16];
  const auto length = std::strftime(stamp, sizeof stamp, "%H:%M:%S", &now);
  std::string line(stamp, length);
  line.append(" [").append(level_name(level)).append("] ").append(escape_controls(text));
  return line;
}

}  // namespace

thread_local HeldLog* HeldLog::innermost_ = nullptr;

HeldLog::HeldLog() : outer_(innermost_) {
  innermost_ = this;
}

HeldLog::~HeldLog() {
  innermost_ = outer_;
}

Logger& Logger::instance() {
  static Logger logger;
  return logger;
}

int Logger::add_sink(Sink sink) {
  const std::lock_guard lock(sink_mutex_);
  sinks_.emplace_back(next_sink_id_, std::move(sink));
  return next_sink_id_++;
}

void Logger::remove_sink(int id) {
  const std::lock_guard lock(sink_mutex_);
  std::erase_if(sinks_, [id](const auto& entry) { return entry.first == id; });
}

void Logger::begin_job() {
  const std::lock_guard lock(said_mutex_);
  said_.emplace();
}

bool Logger::is_repetition(LogLevel level, const std::string& text) {
  if (level < LogLevel::warn) return false;
  constexpr std::size_t kMostTexts = 1 << 16;
  const std::lock_guard lock(said_mutex_);
  if (!said_) return false;
  if (said_->size() >= kMostTexts) said_->clear();
  return !said_->insert(fnv1a(text.data(), text.size(), kFnvOffsetBasis + static_cast<std::uint64_t>(level)))
              .second;
}

void Logger::emit(LogLevel level, std::string text) {
  if (HeldLog* const held = HeldLog::innermost_) {
    held->entries_.push_back({level, std::move(text)});
    return;
  }
  if (is_repetition(level, text)) return;
  const std::string line = format_line(level, text);
  std::vector<Sink> sinks;
  {
    const std::lock_guard lock(sink_mutex_);
    sinks.reserve(sinks_.size());
    for (const auto& entry : sinks_) sinks.push_back(entry.second);
  }
  for (const Sink& sink : sinks) sink(level, line);
  if (!sinks.empty()) return;

  const std::lock_guard lock(console_mutex_);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace nvo
