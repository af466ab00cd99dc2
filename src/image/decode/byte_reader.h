#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/platform/input_file.h"

namespace nvo {

/// A file read through a buffer, for the decoders. After the constructor only `require_sound` throws, so that
/// C libraries may call the rest.
class ByteReader {
 public:
  /// Only regular files open; `open_error` tells why one did not. Throws system_error where the machine has
  /// failed.
  explicit ByteReader(const std::string& path);

  bool is_open() const { return file_.is_open(); }
  int open_error() const { return open_error_; }
  const std::string& path() const { return path_; }
  std::uint64_t size() const { return file_.size(); }

  /// Copies the next `count` bytes; fewer where the file ends or a read fails. Returns how many.
  std::size_t read(void* out, std::size_t count) noexcept;
  bool read_exactly(void* out, std::size_t count) noexcept { return read(out, count) == count; }
  /// The next bytes in place, at least one; empty at the end and where a read fails. Valid until the next
  /// call.
  std::span<const std::uint8_t> next_block() noexcept;
  /// Moves to a position, which may lie behind the end: then nothing is read there.
  void seek(std::uint64_t position) noexcept;
  void skip(std::uint64_t count) noexcept;
  std::uint64_t position() const { return buffer_start_ + next_; }

  /// Throws system_error if a read has failed. A file looks shorter than it is then, so whoever finds it
  /// too short or damaged asks here first.
  void require_sound() const;

 private:
  void refill() noexcept;
  std::size_t read_file(void* out, std::size_t count) noexcept;

  std::string path_;
  platform::InputFile file_;
  int open_error_ = 0, read_error_ = 0;
  std::vector<std::uint8_t> buffer_;
  std::uint64_t buffer_start_ = 0;        // position in the file of the buffer's first byte
  std::size_t next_ = 0, available_ = 0;  // within the buffer
};

}  // namespace nvo
