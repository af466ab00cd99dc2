#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/platform/spool_file.h"

namespace nvo {

/// An unnamed temporary file for pixels that are too many for memory. Whatever fails is a failure of the
/// machine, whose text names the folder, the bytes needed and the image. One thread at a time.
class PixelSpool {
 public:
  /// Makes a file for `bytes` bytes of the pixels of the image at `path`. Refused where the file system says
  /// that it has no room for them.
  PixelSpool(std::string path, std::uint64_t bytes);

  /// Writes behind what is there.
  void append(const void* data, std::size_t size);
  void read_at(std::uint64_t offset, void* data, std::size_t size) const;

  /// For a child process that writes the file: sets the bytes aside, since their lack would show too late.
  void allocate();
  const platform::SpoolFile& file() const { return file_; }

 private:
  void require(int error, const char* what) const;

  std::string path_, folder_;
  std::uint64_t bytes_;
  platform::SpoolFile file_;
};

}  // namespace nvo
