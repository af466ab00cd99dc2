#include "image/decode/byte_reader.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "core/platform/paths.h"

namespace nvo {
namespace {

constexpr std::size_t kBufferBytes = 64 << 10;

}  // namespace

ByteReader::ByteReader(const std::string& path) {
  const auto native_path = platform::to_path(path);
  std::error_code error;
  if (!std::filesystem::is_regular_file(native_path, error)) return;
  const auto size = std::filesystem::file_size(native_path, error);
  if (error) return;
  buffer_.resize(kBufferBytes);
  file_.rdbuf()->pubsetbuf(nullptr, 0);  // the bytes are buffered here already
  file_.open(native_path, std::ios::binary);
  if (file_.is_open()) size_ = size;
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
  buffer_start_ = std::min(position, size_);
  next_ = available_ = 0;
  file_.clear();
  file_.seekg(static_cast<std::streamoff>(buffer_start_));
}

void ByteReader::skip(std::uint64_t count) noexcept {
  seek(count > size_ - std::min(position(), size_) ? size_ : position() + count);
}

void ByteReader::refill() noexcept {
  buffer_start_ = position();
  next_ = 0;
  available_ = read_file(buffer_.data(), buffer_.size());
}

std::size_t ByteReader::read_file(void* out, std::size_t count) noexcept {
  file_.read(static_cast<char*>(out), static_cast<std::streamsize>(count));
  return static_cast<std::size_t>(file_.gcount());
}

}  // namespace nvo
