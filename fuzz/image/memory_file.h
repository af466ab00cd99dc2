#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace nvo::fuzz {

/// A file in memory, reachable through a path.
class MemoryFile {
 public:
  MemoryFile(const std::uint8_t* data, std::size_t size) : descriptor_(::memfd_create("fuzz", MFD_CLOEXEC)) {
    written_ = descriptor_ >= 0 && ::write(descriptor_, data, size) == static_cast<ssize_t>(size);
  }
  ~MemoryFile() { ::close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  bool written() const { return written_; }
  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
  bool written_ = false;
};

}  // namespace nvo::fuzz
