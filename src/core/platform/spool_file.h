#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace nvo::platform {

/// The system's temporary folder (`TMPDIR`, or /tmp), whether it is there or not.
std::string temporary_folder();

/// A temporary file without a name: it disappears with this object, however the process ends. Functions that
/// return a number return 0 or the system's error code; `error_text` of file.h explains it. One thread at a
/// time.
class SpoolFile {
 public:
  SpoolFile() = default;
  ~SpoolFile();
  SpoolFile(const SpoolFile&) = delete;
  SpoolFile& operator=(const SpoolFile&) = delete;

  int create(const std::string& folder);
  /// Bytes that the file system of an empty file has room for; nothing where it can't tell.
  std::optional<std::uint64_t> room() const;
  std::uint64_t size() const;
  /// Sets `size` bytes aside, so that none of them lacks room later, where the file system can do that. The
  /// file stays as long as it is.
  int allocate(std::uint64_t size);
  /// Writes all bytes behind those that are there.
  int append(const void* data, std::size_t size);
  /// Reads exactly `size` bytes from `offset` on; a file that ends before them is an error.
  int read_at(std::uint64_t offset, void* data, std::size_t size) const;

  /// For a child process that is to write it.
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

}  // namespace nvo::platform
