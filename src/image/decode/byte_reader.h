#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <span>
#include <string>
#include <vector>

namespace nvo {

/// A file read through a buffer, for the decoders. No function throws, so that C libraries may call them.
class ByteReader {
 public:
  /// Only regular files open.
  explicit ByteReader(const std::string& path);

  bool is_open() const { return file_.is_open(); }
  std::uint64_t size() const { return size_; }

  /// Copies the next `count` bytes; fewer where the file ends. Returns how many.
  std::size_t read(void* out, std::size_t count) noexcept;
  bool read_exactly(void* out, std::size_t count) noexcept { return read(out, count) == count; }
  /// The next bytes in place, at least one; empty at the end. Valid until the next call.
  std::span<const std::uint8_t> next_block() noexcept;
  /// Moves to a position, which may lie behind the end: then nothing is read there.
  void seek(std::uint64_t position) noexcept;
  void skip(std::uint64_t count) noexcept;

 private:
  std::uint64_t position() const { return buffer_start_ + next_; }
  void refill() noexcept;
  std::size_t read_file(void* out, std::size_t count) noexcept;

  std::ifstream file_;
  std::uint64_t size_ = 0;
  std::vector<std::uint8_t> buffer_;
  std::uint64_t buffer_start_ = 0;        // position in the file of the buffer's first byte
  std::size_t next_ = 0, available_ = 0;  // within the buffer
};

}  // namespace nvo
