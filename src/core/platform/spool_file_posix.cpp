#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "core/platform/environment.h"
#include "core/platform/file.h"
#include "core/platform/spool_file.h"

namespace nvo::platform {
namespace {

constexpr std::size_t kMaxTransfer = std::size_t{1} << 30;  // one call takes less than 2 GiB

/// Descriptor, or minus the error.
int open_unnamed(const std::string& folder) {
#ifdef O_TMPFILE
  const int unnamed = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (unnamed >= 0) return unnamed;
#endif
  // Some file systems know only files with names.
  std::string name = folder + "/nvo_spool_XXXXXX";
  const int named = ::mkostemp(name.data(), O_CLOEXEC);
  if (named < 0) return -errno;
  ::unlink(name.c_str());
  return named;
}

}  // namespace

std::string temporary_folder() {
  for (const char* name : {"TMPDIR", "TMP", "TEMP", "TEMPDIR"})
    if (const auto folder = environment(name); folder && !folder->empty()) return *folder;
  return "/tmp";
}

SpoolFile::~SpoolFile() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int SpoolFile::create(const std::string& folder) {
  const int descriptor = open_unnamed(folder);
  if (descriptor < 0) return -descriptor;
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = descriptor;
  return 0;
}

std::optional<std::uint64_t> SpoolFile::room() const {
  struct statvfs system {};
  // A file system without blocks (a network's, a memory's without a limit) doesn't count them.
  if (::fstatvfs(descriptor_, &system) != 0 || system.f_blocks == 0) return std::nullopt;
  return std::uint64_t{system.f_bavail} * system.f_frsize;
}

int SpoolFile::allocate(std::uint64_t size) {
#ifdef __linux__
  // Not the C library's function, which writes every block where the file system has no call for it.
  int error = 0;
  do error = ::fallocate(descriptor_, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) == 0 ? 0 : errno;
  while (error == EINTR);
  return error == EOPNOTSUPP || error == ENOSYS ? 0 : error;
#else
  return 0;
#endif
}

std::uint64_t SpoolFile::size() const {
  struct stat status {};
  return ::fstat(descriptor_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

int SpoolFile::append(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size != 0) {
    const ssize_t written = ::write(descriptor_, bytes, std::min(size, kMaxTransfer));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return 0;
}

int SpoolFile::read_at(std::uint64_t offset, void* data, std::size_t size) const {
  std::size_t read = 0;
  if (const int error = platform::read_at(descriptor_, offset, data, size, read)) return error;
  return read == size ? 0 : EIO;
}

}  // namespace nvo::platform
