#pragma once

#include <string>

#include "update/update_service.h"

namespace nvo {

/// What a run ends with, for the shell.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 1,
  kExitFailed = 2,
  kExitUpdateRequired = 4,
};

/// Rips one image as the user's settings say, unless `update_service` demands an update first. `output_path`
/// may be empty: the name then comes from the input's. Both are UTF-8. Reports through the log and the
/// console and returns the exit code; never throws a standard exception.
int run(const std::string& input_path, const std::string& output_path, const UpdateService& update_service);

}  // namespace nvo
