#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace nvo::platform {

/// The system's file name of a shared library: "libNAME.so" or what stands for it.
std::string library_file_name(std::string_view name);

/// A shared library bound at run time; closes itself when destroyed.
class DynamicLibrary {
 public:
  DynamicLibrary() = default;
  DynamicLibrary(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(const DynamicLibrary&) = delete;
  ~DynamicLibrary();

  /// Loads exactly this file, with all that it depends on; `path` is absolute. Returns 0, or the system's
  /// error with its explanation in `reason`.
  int open(const std::filesystem::path& path, std::string& reason);
  void close() noexcept;
  bool is_open() const { return handle_ != nullptr; }

  /// Address of an exported function, or null.
  void* symbol(const char* name) const;

 private:
  void* handle_ = nullptr;
};

}  // namespace nvo::platform
