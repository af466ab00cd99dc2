#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

#include <dirent.h>

#include "core/platform/paths.h"

namespace nvo::platform {

std::filesystem::path to_path(std::string_view utf8) {
  return std::filesystem::path(std::string(utf8));
}

std::string to_utf8(const std::filesystem::path& path) {
  return path.native();
}

std::vector<std::string> names_in_folder(const std::string& folder, std::string_view beginning) {
  struct Close {
    void operator()(DIR* open) const { ::closedir(open); }
  };
  const std::unique_ptr<DIR, Close> open(::opendir(folder.c_str()));
  if (!open && errno == ENOMEM) throw std::bad_alloc();
  std::vector<std::string> names;
  while (const dirent* const entry = open ? ::readdir(open.get()) : nullptr)
    if (std::string_view(entry->d_name).starts_with(beginning)) names.emplace_back(entry->d_name);
  return names;
}

std::filesystem::path executable_directory() {
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : executable.parent_path();
}

UserFolder user_config_directory() {
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && config[0] == '/') return {config, 0};
  if (const char* home = std::getenv("HOME"); home && home[0] != '\0')
    return {std::filesystem::path(home) / ".config", 0};
  return {{}, ENOENT};
}

}  // namespace nvo::platform
