#pragma once

#include <string>

namespace nvo {

/// What a run ends with, for the shell.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 1,
  kExitFailed = 2,
};

/// Rips one image as the user's settings say. `output_path` may be empty: the name then comes from the
/// input's. Both are UTF-8. Reports through the log and the console and returns the exit code; never throws a
/// standard exception.
int run(const std::string& input_path, const std::string& output_path);

}  // namespace nvo
