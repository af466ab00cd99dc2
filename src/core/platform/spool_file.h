#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo::platform {

/// A temporary file without a name: it disappears with this object, however the process ends. It lies in the
/// system's temporary folder (`TMPDIR`). Every function returns 0 or the system's error code; `error_text`
/// of file.h explains it. One thread at a time.
class SpoolFile {
 public:
  SpoolFile() = default;
  ~SpoolFile();
  SpoolFile(const SpoolFile&) = delete;
  SpoolFile& operator=(const SpoolFile&) = delete;

  int create();
  /// Writes all bytes behind those that are there.
  int append(const void* data, std::size_t size);
  /// Reads exactly `size` bytes from `offset` on; a file that ends before them is an error.
  int read_at(std::uint64_t offset, void* data, std::size_t size) const;

 private:
  int descriptor_ = -1;
};

}  // namespace nvo::platform
