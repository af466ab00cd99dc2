#pragma once

#include <filesystem>
#include <string>

namespace nvo {

/// Folder of the settings files, `NVO_RIP` in the user's application data, made if it is not there. Where the
/// system names no such folder it is `NVO_RIP` in the current one. A folder that cannot be made is logged and
/// returned all the same.
std::filesystem::path settings_directory();

/// The main settings file, UTF-8. The other settings files derive their names from it.
std::string settings_path();

}  // namespace nvo
