#include "image/decode/byte_reader.h"

#include <algorithm>
#include <cstring>

#include "core/machine_failure.h"

namespace nvo {
namespace {

constexpr std::size_t kBufferBytes = 64 << 10;

}  // namespace

ByteReader::ByteReader(const std::string& path) : path_(path) {
  open_error_ = file_.open(path);
  if (open_error_ != 0 && !platform::tells_of_path(open_error_)) fail_on_file("open", path, open_error_);
  if (is_open()) buffer_.resize(kBufferBytes);
}

void ByteReader::require_sound() const {
  if (read_error_ != 0) fail_on_file("read", path_, read_error_);
}

std::size_t ByteReader::read(void* out, std::size_t count) noexcept {
  auto* to = static_cast<std::uint8_t*>(out);
  std::size_t missing = count;
  while (missing != 0) {
    if (next_ == available_ && missing >= buffer_.size()) {
      const std::size_t got = read_file(to, missing);
      buffer_start_ = position() + got;
      next_ = available_ = 0;
      return count - missing + got;
    }
    if (next_ == available_) refill();
    const std::size_t piece = std::min(missing, available_ - next_);
    if (piece == 0) break;
    std::memcpy(to, buffer_.data() + next_, piece);
    next_ += piece;
    to += piece;
    missing -= piece;
  }
  return count - missing;
}

std::span<const std::uint8_t> ByteReader::next_block() noexcept {
  if (next_ == available_) refill();
  const std::span block(buffer_.data() + next_, available_ - next_);
  next_ = available_;
  return block;
}

void ByteReader::seek(std::uint64_t position) noexcept {
  if (position >= buffer_start_ && position - buffer_start_ <= available_) {
    next_ = static_cast<std::size_t>(position - buffer_start_);
    return;
  }
  buffer_start_ = std::min(position, size());
  next_ = available_ = 0;
}

void ByteReader::skip(std::uint64_t count) noexcept {
  seek(count > size() - std::min(position(), size()) ? size() : position() + count);
}

void ByteReader::refill() noexcept {
  buffer_start_ = position();
  next_ = available_ = 0;
  available_ = read_file(buffer_.data(), buffer_.size());
}

/// Reads at `position`, without moving it. After a failure there is nothing more to read.
std::size_t ByteReader::read_file(void* out, std::size_t count) noexcept {
  std::size_t got = 0;
  if (read_error_ == 0) read_error_ = file_.read_at(position(), out, count, got);
  return read_error_ == 0 ? got : 0;
}

}  // namespace nvo
