#include "app/output_path.h"

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <new>
#include <string_view>
#include <system_error>

#include "core/platform/paths.h"
#include "core/text.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDefaultStem = "job";

bool is_absent(const fs::file_status& status) {
  return status.type() == fs::file_type::not_found;
}

/// Why no file can be made at a path, whatever stands there; empty where one can.
std::string flaw_of_name(const fs::path& target) {
  const std::size_t name = target.filename().native().size();
  if (name > platform::kMaxNameBytes)
    return "file name is too long (" + std::to_string(name) + " bytes, at most " +
           std::to_string(platform::kMaxNameBytes) + "): ";
  const std::size_t path = target.native().size();
  if (path > platform::kMaxPathBytes)
    return "path is too long (" + std::to_string(path) + " bytes, at most " +
           std::to_string(platform::kMaxPathBytes) + "): ";
  return {};
}

bool names_a_folder(const fs::path& target) {
  const fs::path name = target.filename();
  return name.empty() || name == "." || name == "..";
}

bool resolve_explicit(const std::string& explicit_path, std::string& out_path, std::string& out_error,
                      bool& out_parent_created) {
  if (explicit_path.empty()) {
    out_error = "Explicit output override path is empty.";
    return false;
  }
  const fs::path target = platform::to_path(explicit_path);
  const fs::path parent = target.has_parent_path() ? target.parent_path() : fs::path(".");
  std::error_code code;
  const fs::file_status parent_status = fs::status(parent, code);
  if (fs::exists(parent_status) && !fs::is_directory(parent_status)) {
    out_error = "Explicit output parent path is not a directory.";
    return false;
  }
  if (const std::string flaw = flaw_of_name(target); !flaw.empty()) {
    out_error = "Explicit output " + flaw + explicit_path;
    return false;
  }
  if (!fs::exists(parent_status)) {
    if (names_a_folder(target)) {
      out_error = "Explicit output path names a folder, not a file: " + explicit_path;
      return false;
    }
    code.clear();
    if (!fs::create_directories(parent, code) && code) {
      out_error = "Cannot create explicit output parent directory: " + code.message();
      return false;
    }
    out_parent_created = true;
  }
  const fs::file_status target_status = fs::symlink_status(target, code);
  if (target_status.type() == fs::file_type::none) {
    out_error = "Explicit output target cannot be looked at: " + code.message();
    return false;
  }
  if (!is_absent(target_status)) {
    out_error = "Explicit output target already exists.";
    return false;
  }
  out_path = explicit_path;
  return true;
}

bool custom_folder(const std::string& configured, fs::path& folder, std::string& out_error) {
  if (configured.empty()) {
    out_error = "Custom output folder is enabled, but path is empty.";
    return false;
  }
  if (configured.find('\0') != std::string::npos) {
    out_error = "Custom output folder path is invalid: it holds a NUL byte";
    return false;
  }
  try {
    folder = platform::to_path(configured);
    std::error_code code;
    const fs::file_status status = fs::status(folder, code);
    if (fs::exists(status)) {
      if (fs::is_directory(status)) return true;
      out_error = "Custom output folder path is not a directory.";
      return false;
    }
    code.clear();
    if (fs::create_directories(folder, code) || !code) return true;
    out_error = "Cannot create custom output folder: " + code.message();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    out_error = std::string("Custom output folder path is invalid: ") + e.what();
  } catch (...) {
    out_error = "Custom output folder path is invalid.";
  }
  return false;
}

/// An older file at a derived path will be replaced; what can't be is found before the work begins.
bool take_derived(const fs::path& target, std::string& out_path, std::string& out_error) {
  out_path = platform::to_utf8(target);
  std::error_code ignored;
  if (const std::string flaw = flaw_of_name(target); !flaw.empty()) {
    out_error = "Output " + flaw + out_path;
  } else if (fs::symlink_status(target, ignored).type() == fs::file_type::directory) {
    out_error = "Output target is a folder: " + out_path;
  }
  return out_error.empty();
}

void drop_trailing_dots_and_blanks(std::string& stem) {
  while (!stem.empty() && (stem.back() == '.' || stem.back() == ' ')) stem.pop_back();
}

bool is_unsafe(char c) {
  constexpr std::string_view kUnsafe = " \"*/:<>?\\|";
  const auto byte = static_cast<unsigned char>(c);
  return byte < 32 || byte == 127 || kUnsafe.find(c) != std::string_view::npos;
}

// The print file may be read on a system that keeps these names for devices.
bool is_device_name(std::string_view stem) {
  const std::string name = ascii_lower(stem.substr(0, stem.find('.')));
  constexpr std::array<std::string_view, 4> kPlain = {"con", "prn", "aux", "nul"};
  if (std::find(kPlain.begin(), kPlain.end(), name) != kPlain.end()) return true;
  return name.size() == 4 && (name.starts_with("com") || name.starts_with("lpt")) && name[3] >= '1' &&
         name[3] <= '9';
}

std::string clean_stem(std::string stem) {
  if (stem.empty()) return std::string(kDefaultStem);
  drop_trailing_dots_and_blanks(stem);
  std::replace_if(stem.begin(), stem.end(), is_unsafe, '_');
  drop_trailing_dots_and_blanks(stem);
  if (stem.find_first_not_of("._") == std::string::npos) stem = kDefaultStem;
  if (is_device_name(stem)) stem += '_';
  return stem;
}

}  // namespace

bool resolve_output_path(const std::string& input_path, const std::string& explicit_path,
                         const RipSettings& rip_settings, const JobSettings& job_settings,
                         std::string& out_path, std::string& out_error, bool& out_parent_created) {
  out_error.clear();
  out_parent_created = false;
  if (!explicit_path.empty()) return resolve_explicit(explicit_path, out_path, out_error, out_parent_created);

  const fs::path input = platform::to_path(input_path);
  fs::path folder;
  if (rip_settings.custom_output_folder_enabled) {
    if (!custom_folder(rip_settings.custom_output_folder_path, folder, out_error)) return false;
  } else {
    folder = input.has_parent_path() ? input.parent_path() : fs::path(".");
  }
  const std::string name =
      clean_stem(platform::to_utf8(input.stem())) + std::string(print_extension(job_settings.head()));
  return take_derived(folder / platform::to_path(name), out_path, out_error);
}

}  // namespace nvo
