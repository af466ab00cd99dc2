#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

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
  std::optional<std::uint64_t> start_, drawn_at_;  ///< of the first record, of the last drawing
  std::string shown_;                              ///< what stands on the terminal
};

}  // namespace nvo
