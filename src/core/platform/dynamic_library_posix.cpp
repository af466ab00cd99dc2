#include <cerrno>
#include <utility>

#include <dlfcn.h>

#include "core/platform/dynamic_library.h"

namespace nvo::platform {

std::string library_file_name(std::string_view name) {
  return "lib" + std::string(name) + ".so";
}

DynamicLibrary::~DynamicLibrary() {
  close();
}

int DynamicLibrary::open(const std::filesystem::path& path, std::string& reason) {
  close();
  errno = 0;
  // A C++ library may have left destructors with threads that still run: its code stays mapped when it is
  // closed.
  handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle_) return 0;
  const int code = errno != 0 ? errno : ENOEXEC;  // the loader reports some refusals in its text alone
  const char* text = ::dlerror();
  reason = text ? text : "";
  return code;
}

void DynamicLibrary::close() noexcept {
  if (handle_) ::dlclose(std::exchange(handle_, nullptr));
}

void* DynamicLibrary::symbol(const char* name) const {
  return ::dlsym(handle_, name);
}

}  // namespace nvo::platform
