#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/platform/append_file.h"

namespace nvo::platform {
namespace {

int append(int descriptor, std::string_view text) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return ENODEV;
  const ssize_t written = ::write(descriptor, text.data(), text.size());
  if (written < 0) return errno;
  return static_cast<std::size_t>(written) == text.size() ? 0 : ENOSPC;
}

}  // namespace

int append_to_file(const std::string& path, std::string_view text) {
  constexpr mode_t kReadAndWrite = 0666;
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
             kReadAndWrite);
  if (descriptor < 0) return errno;
  const int error = append(descriptor, text);
  ::close(descriptor);
  return error;
}

}  // namespace nvo::platform
