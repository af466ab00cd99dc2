#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace nvo::platform {

/// What a child process may use.
struct ChildLimits {
  std::chrono::milliseconds time{};   ///< from start to end; bounds the processor time as well
  std::uint64_t address_space = 0;    ///< bytes
  std::uint64_t standard_output = 0;  ///< bytes
};

enum class ChildEnd {
  exited,           ///< `code` is the exit code
  signalled,        ///< `code` is the number of the signal that ended it
  timed_out,        ///< killed
  too_much_output,  ///< killed
  not_started,      ///< `code` is the system's error
};

struct ChildResult {
  ChildEnd end = ChildEnd::not_started;
  int code = 0;
  std::string output;       ///< standard output; incomplete unless the child exited
  std::string diagnostics;  ///< the first 64 KiB of standard error
};

/// Absolute path of a program on the search path, or empty. Relative folders of the path are not searched.
std::string find_program(const std::string& name);

/// Runs a program to its end: `command` is its absolute path and its arguments, which no shell reads. The
/// child gets empty input, the environment with LC_ALL=C, and no open file of this process; it dies with the
/// calling thread, and children of its own die with it when a limit is exceeded. Any thread may call it.
ChildResult run_child(const std::vector<std::string>& command, const ChildLimits& limits);

}  // namespace nvo::platform
