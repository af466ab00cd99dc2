#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "app/job_driver.h"
#include "rip/stream_rip.h"

namespace nvo {

/// What a progress line is written on, and its clock.
struct ProgressTerminal {
  std::function<void(const std::string&, bool)> write;  ///< told whether a line stands there afterwards
  std::function<std::size_t()> columns;
  std::function<std::uint64_t()> nanoseconds;  ///< monotonic
};

/// Standard error and the system's clock.
ProgressTerminal standard_error_terminal();

/// The state of a job in words: what it does, stages done, percent and, where `elapsed_ns` since its first
/// record allows a guess, device rows a second and the time left. ASCII.
std::string progress_text(const RipProgress& progress, std::uint64_t elapsed_ns);

/// The same for a program: an object of JSON on one line, with `stage`, `stages`, `percent`, `message`,
/// `rows`, `seconds` since the job's first record and, null where nobody can guess, the seconds `left`.
std::string progress_json(const RipProgress& progress, std::uint64_t elapsed_ns);

/// Picks the records of a job that are shown: ten a second at the most, but all of its last stages.
class ProgressPace {
 public:
  /// Nanoseconds since the job's first record if this one is due.
  std::optional<std::uint64_t> due(const RipProgress& progress, std::uint64_t now);

 private:
  std::optional<std::uint64_t> start_, shown_at_;
};

/// Tells a program that watches standard error how far a job is, a line of JSON a step.
class ProgressFeed {
 public:
  /// `write` takes whole lines; `nanoseconds` is a monotonic clock.
  ProgressFeed(std::function<void(const std::string&)> write, std::function<std::uint64_t()> nanoseconds)
      : write_(std::move(write)), nanoseconds_(std::move(nanoseconds)) {}

  /// Lets a job drive the feed. The callbacks refer to this object.
  JobCallbacks callbacks();
  void show(const RipProgress& progress);

 private:
  std::function<void(const std::string&)> write_;
  std::function<std::uint64_t()> nanoseconds_;
  ProgressPace pace_;
};

/// On standard error, by the system's clock.
ProgressFeed standard_error_feed();

/// One line on a terminal that tells how far a job is. It is written over itself, at most ten times a second
/// but for a job's last stages, steps aside for lines of the log, and is gone when the object is. A signal
/// that ends the process ends the line as well.
class ProgressLine {
 public:
  explicit ProgressLine(ProgressTerminal terminal);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Lets a job drive the line. The callbacks refer to this object; its log goes to standard output.
  JobCallbacks callbacks();

  void show(const RipProgress& progress);
  /// Calls `print` while the line is out of the way. Any thread.
  void step_aside(const std::function<void()>& print);

 private:
  void draw(const std::string& text);

  ProgressTerminal terminal_;
  std::mutex mutex_;
  ProgressPace pace_;
  std::string shown_;  ///< what stands on the terminal
};

}  // namespace nvo
