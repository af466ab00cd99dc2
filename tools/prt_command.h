#pragma once

#include <ostream>
#include <span>

namespace nvo {

inline constexpr int kPrtExitWhole = 0;
inline constexpr int kPrtExitUsage = 1;
inline constexpr int kPrtExitFailure = 2;

/// The program `nvo_prt` without its process: arguments (the first is the program's name) in, exit code out.
/// Results go to `out`, complaints to `err`.
int run_prt_command(std::span<char* const> arguments, std::ostream& out, std::ostream& err);

}  // namespace nvo
