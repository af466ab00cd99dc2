#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace nvo::platform {

/// Texts are UTF-8 in memory; these two are the only place where they meet the file system's own form.
std::filesystem::path to_path(std::string_view utf8);
std::string to_utf8(const std::filesystem::path& path);

/// Longest name and path that the system takes, in bytes.
inline constexpr std::size_t kMaxNameBytes = 255;
inline constexpr std::size_t kMaxPathBytes = 4095;

/// Names in a folder that begin so, in no order, as far as the system gives them; none where it can't be
/// read. The standard library's own walk ends the process where there is no memory for a name; this one
/// throws.
std::vector<std::string> names_in_folder(const std::string& folder, std::string_view beginning);

/// Folder of the running executable; empty when the system cannot tell.
std::filesystem::path executable_directory();

/// The per-user application data folder. On failure `folder` is empty and `error` holds the system's code.
struct UserFolder {
  std::filesystem::path folder;
  int error = 0;
};
UserFolder user_config_directory();

}  // namespace nvo::platform
