#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "core/platform/spool_file.h"

namespace nvo::platform {

/// What a child process may use.
struct ChildLimits {
  std::chrono::milliseconds time{};        ///< from start to end; bounds the processor time as well
  std::uint64_t address_space = 0;         ///< bytes
  std::uint64_t standard_output = 0;       ///< bytes
  const SpoolFile* output_file = nullptr;  ///< takes the standard output, for a program that seeks in it
  bool may_start_processes = false;        ///< else the program stays alone, whoever runs it
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
  std::string output;       ///< standard output without a file; incomplete unless the child exited
  std::string diagnostics;  ///< the first 64 KiB of standard error
};

/// Absolute path of a program on the search path, or empty. Relative folders of the path are not searched.
std::string find_program(const std::string& name);

/// Runs a program to its end: `command` is its absolute path and its arguments, which no shell reads. The
/// child gets empty input, no open file of this process and of the environment only what finds programs and
/// fonts, with LC_ALL=C. It writes no file but the one that it was given, holds at most 64 open, gains no
/// privileges and dies with the calling thread. When this returns, the child and whatever it left behind are
/// gone, those included that began a session of their own: every other process whose parent this one is must
/// have been there before or come from here. Any thread may call it.
ChildResult run_child(const std::vector<std::string>& command, const ChildLimits& limits);

}  // namespace nvo::platform
