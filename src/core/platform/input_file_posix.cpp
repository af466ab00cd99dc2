#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/platform/file.h"
#include "core/platform/input_file.h"

namespace nvo::platform {

InputFile::InputFile(InputFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), size_(std::exchange(other.size_, 0)) {}

InputFile::~InputFile() {
  close();
}

int InputFile::open(const std::string& path) {
  close();
  // Without O_NONBLOCK a pipe would be waited for before it can be refused.
  do descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  while (descriptor_ < 0 && errno == EINTR);
  if (descriptor_ < 0) return errno;
  struct stat status {};
  int error = ::fstat(descriptor_, &status) == 0 ? 0 : errno;
  if (error == 0 && !S_ISREG(status.st_mode)) error = S_ISDIR(status.st_mode) ? EISDIR : ENODEV;
  if (error != 0) {
    close();
    return error;
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
  return 0;
}

void InputFile::close() noexcept {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  size_ = 0;
}

int InputFile::read_at(std::uint64_t offset, void* data, std::size_t size, std::size_t& read) const noexcept {
  return platform::read_at(descriptor_, offset, data, size, read);
}

bool tells_of_path(int code) {
  constexpr int kOfPath[] = {ENOENT, ENOTDIR, EISDIR, EACCES, EPERM,
                             ELOOP,  EINVAL,  ENODEV, ENXIO,  ENAMETOOLONG};
  return std::ranges::find(kOfPath, code) != std::end(kOfPath);
}

int path_status(const std::string& path, PathStatus& status) {
  struct stat found {};
  if (::stat(path.c_str(), &found) != 0) return errno;
  status.is_regular = S_ISREG(found.st_mode);
  status.is_folder = S_ISDIR(found.st_mode);
  status.size = status.is_regular ? static_cast<std::uint64_t>(found.st_size) : 0;
  return 0;
}

int path_error(const std::string& path) {
  PathStatus ignored;
  const int error = path_status(path, ignored);
  return error == ENOENT || error == ENOTDIR ? 0 : error;
}

bool means_no_permission(int code) {
  return code == EACCES || code == EPERM;
}

std::string input_error_text(int code) {
  const bool is_special = code == ENODEV || code == ENXIO;
  return is_special ? "it is no file but a pipe, a socket or a device" : error_text(code);
}

}  // namespace nvo::platform
