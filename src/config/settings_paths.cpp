#include "config/settings_paths.h"

#include <ios>
#include <system_error>

#include "core/log.h"
#include "core/platform/paths.h"
#include "core/text.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolderName = "NVO_RIP";
constexpr const char* kFileName = "settings.json";
constexpr const char* kFallbackFileName = "nvo_rip_settings.json";

fs::path locate_settings_directory() {
  const platform::UserFolder user = platform::user_config_directory();
  if (user.error == 0) return user.folder / kFolderName;
  const fs::path fallback = fs::path(".") / kFolderName;
  log_error("RipSettings: cannot resolve AppData (SHGetFolderPathW HRESULT 0x", std::hex, user.error,
            "); using fallback settings directory '", platform::to_utf8(fallback), "'.");
  return fallback;
}

void make_directory(const fs::path& folder) {
  std::error_code error;
  // With its ancestors: a fresh account has no application data folder yet.
  fs::create_directories(folder, error);
  std::error_code ignored;
  if (!error || error == std::errc::file_exists || fs::exists(folder, ignored)) return;
  log_error("RipSettings: cannot create settings directory '", platform::to_utf8(folder), "' (Win32 error ",
            error.value(), ").");
}

}  // namespace

fs::path settings_directory() {
  fs::path folder = locate_settings_directory();
  make_directory(folder);
  return folder;
}

std::string settings_path() {
  std::string path = platform::to_utf8(settings_directory() / kFileName);
  if (is_valid_utf8(path)) return path;
  log_error("RipSettings: cannot convert settings path to UTF-8; using local fallback.");
  return kFallbackFileName;
}

}  // namespace nvo
