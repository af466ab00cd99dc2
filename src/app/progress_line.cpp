#include "app/progress_line.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include <nlohmann/json.hpp>

#include "core/platform/clock.h"
#include "core/platform/terminal.h"

namespace nvo {
namespace {

constexpr std::uint64_t kShortestInterval = 100'000'000;  // nanoseconds
constexpr double kNanosecondsPerSecond = 1e9;

/// As in "0:07" or "1:02:30".
std::string clock_text(std::uint64_t seconds) {
  const auto two_digits = [](std::uint64_t value) { return (value < 10 ? "0" : "") + std::to_string(value); };
  const std::uint64_t minutes = seconds / 60;
  const std::string tail = ":" + two_digits(seconds % 60);
  return minutes < 60 ? std::to_string(minutes) + tail
                      : std::to_string(minutes / 60) + ":" + two_digits(minutes % 60) + tail;
}

double seconds_of(std::uint64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / kNanosecondsPerSecond;
}

/// Nothing before there is something to go by.
std::optional<double> seconds_left(const RipProgress& progress, std::uint64_t elapsed_ns) {
  if (elapsed_ns == 0 || !(progress.percent > 0.0f)) return std::nullopt;
  return seconds_of(elapsed_ns) * (100.0 - progress.percent) / progress.percent;
}

}  // namespace

ProgressTerminal standard_error_terminal() {
  return {platform::write_unless_ended, platform::standard_error_columns, platform::monotonic_nanoseconds};
}

std::string progress_text(const RipProgress& progress, std::uint64_t elapsed_ns) {
  std::string text = progress.message + ": " + std::to_string(progress.stage) + " done, " +
                     std::to_string(static_cast<int>(progress.percent)) + " %";
  const auto left = seconds_left(progress, elapsed_ns);
  if (!left) return text;
  if (progress.rows != 0)
    text += ", " + std::to_string(std::llround(static_cast<double>(progress.rows) / seconds_of(elapsed_ns))) +
            " rows/s";
  return text + ", " + clock_text(static_cast<std::uint64_t>(std::ceil(*left))) + " left";
}

std::string progress_json(const RipProgress& progress, std::uint64_t elapsed_ns) {
  const auto rounded = [](double value) { return std::round(value * 10.0) / 10.0; };
  nlohmann::ordered_json record(nlohmann::ordered_json::value_t::object);
  record["stage"] = progress.stage;
  record["stages"] = progress.stage_count;
  record["percent"] = rounded(progress.percent);
  record["message"] = progress.message;
  record["rows"] = progress.rows;
  record["seconds"] = rounded(seconds_of(elapsed_ns));
  record["left"] = nullptr;
  if (const auto left = seconds_left(progress, elapsed_ns)) record["left"] = rounded(*left);
  return record.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::optional<std::uint64_t> ProgressPace::due(const RipProgress& progress, std::uint64_t now) {
  if (!start_) start_ = now;
  const bool last_stages = progress.stage >= progress.stage_count;
  if (shown_at_ && now - *shown_at_ < kShortestInterval && !last_stages) return std::nullopt;
  shown_at_ = now;
  return now - *start_;
}

ProgressFeed standard_error_feed() {
  return {[](const std::string& line) { platform::write_unless_ended(line, false); },
          platform::monotonic_nanoseconds};
}

JobCallbacks ProgressFeed::callbacks() {
  JobCallbacks callbacks;
  callbacks.progress = [this](const RipProgress& progress) { show(progress); };
  return callbacks;
}

void ProgressFeed::show(const RipProgress& progress) {
  if (const auto elapsed = pace_.due(progress, nanoseconds_()))
    write_(progress_json(progress, *elapsed) + "\n");
}

ProgressLine::ProgressLine(ProgressTerminal terminal) : terminal_(std::move(terminal)) {}

ProgressLine::~ProgressLine() {
  draw("");
}

JobCallbacks ProgressLine::callbacks() {
  JobCallbacks callbacks;
  callbacks.progress = [this](const RipProgress& progress) { show(progress); };
  callbacks.log = [this](LogLevel, const std::string& line) {
    step_aside([&] {
      std::puts(line.c_str());
      std::fflush(stdout);
    });
  };
  return callbacks;
}

void ProgressLine::show(const RipProgress& progress) {
  const std::lock_guard lock(mutex_);
  if (const auto elapsed = pace_.due(progress, terminal_.nanoseconds()))
    draw(progress_text(progress, *elapsed));
}

void ProgressLine::step_aside(const std::function<void()>& print) {
  const std::lock_guard lock(mutex_);
  const std::string text = shown_;
  draw("");
  print();
  draw(text);
}

void ProgressLine::draw(const std::string& text) {
  // A line that reaches the last column would wrap, and a carriage return no longer find its start.
  const std::size_t room = std::max<std::size_t>(terminal_.columns(), 1) - 1;
  const std::size_t old_length = std::min(shown_.size(), room);
  shown_ = text.substr(0, room);
  if (shown_.empty() && old_length == 0) return;
  std::string out = "\r" + shown_;
  if (old_length > shown_.size()) out.append(old_length - shown_.size(), ' ');
  if (shown_.empty()) out += '\r';
  terminal_.write(out, !shown_.empty());
}

}  // namespace nvo
