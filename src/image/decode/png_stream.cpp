#include "image/decode/png_stream.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>

#include "core/platform/vector_registers.h"

namespace nvo {
namespace {

constexpr std::size_t kInputBytes = 128 << 10;
constexpr std::size_t kCrcBytes = 4;
constexpr std::string_view kType = "IDAT";

std::uint32_t big_u32(const std::uint8_t* bytes) {
  return std::uint32_t{bytes[0]} << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
}

/// Of the chunk's type, with which a checksum begins.
std::uint32_t first_crc() {
  return crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(kType.data()), kType.size());
}

}  // namespace

PngStream::PngStream(ByteReader& reader, std::uint64_t chunk, std::uint64_t size)
    : reader_(reader),
      size_(size),
      input_(std::make_unique_for_overwrite<std::uint8_t[]>(kInputBytes)),
      inflate_(std::make_unique_for_overwrite<inflate_state>()) {
  reader_.seek(chunk);
  isal_inflate_init(inflate_.get());
  inflate_->crc_flag = ISAL_ZLIB;
}

PngStream::~PngStream() = default;

std::size_t PngStream::read(std::span<std::uint8_t> out) {
  const std::size_t wanted = std::min<std::size_t>(out.size(), std::numeric_limits<std::uint32_t>::max());
  inflate_->next_out = out.data();
  inflate_->avail_out = static_cast<std::uint32_t>(wanted);
  while (inflate_->avail_out != 0 && state_ == State::sound) {
    const std::uint32_t in_before = inflate_->avail_in, out_before = inflate_->avail_out;
    platform::clear_upper_registers();
    if (isal_inflate(inflate_.get()) != ISAL_DECOMP_OK)
      state_ = State::broken;
    else if (inflate_->block_state == ISAL_BLOCK_FINISH)
      state_ = State::ended;
    else if (inflate_->avail_in == in_before && inflate_->avail_out == out_before && !load())
      state_ = State::broken;
  }
  platform::clear_upper_registers();
  return wanted - inflate_->avail_out;
}

/// Puts what comes next in the file before the inflater, which has used what it had.
bool PngStream::load() {
  if (inflate_->avail_in != 0) return false;
  const std::size_t loaded = piece_left_ == 0 ? load_chunks() : load_piece();
  if (loaded == 0 || (!is_begun_ && !has_usual_window(input_[0]))) return false;
  is_begun_ = true;
  inflate_->next_in = input_.get();
  inflate_->avail_in = static_cast<std::uint32_t>(loaded);
  return true;
}

/// As many whole chunks as there is room for, or a piece of one that is longer. 0 where one is damaged.
std::size_t PngStream::load_chunks() {
  std::size_t loaded = 0;
  for (;;) {
    const std::uint64_t head = reader_.position();
    const std::optional<std::uint32_t> length = next_chunk();
    if (!length) return loaded;
    const std::size_t bytes = std::size_t{*length} + kCrcBytes;
    std::uint8_t* data = input_.get() + loaded;
    if (bytes > kInputBytes - loaded) {
      if (loaded == 0 && check_chunk(*length)) {
        piece_left_ = *length;
        return load_piece();
      }
      reader_.seek(head);
      return loaded;
    }
    if (!reader_.read_exactly(data, bytes) ||
        crc32_gzip_refl(first_crc(), data, *length) != big_u32(data + *length))
      return 0;
    loaded += *length;
  }
}

std::size_t PngStream::load_piece() {
  const std::uint32_t piece = std::min<std::uint32_t>(piece_left_, kInputBytes);
  if (!reader_.read_exactly(input_.get(), piece)) return 0;
  piece_left_ -= piece;
  if (piece_left_ == 0) reader_.skip(kCrcBytes);
  return piece;
}

/// The length of the chunk that begins here, at whose data the reader then stands. Nothing, and the reader
/// does not move, where it is no IDAT or the file ends in it.
std::optional<std::uint32_t> PngStream::next_chunk() {
  const std::uint64_t start = reader_.position();
  std::array<std::uint8_t, 4 + kType.size()> head{};  // length and type
  if (reader_.read_exactly(head.data(), head.size()) &&
      std::equal(kType.begin(), kType.end(), head.begin() + 4)) {
    const std::uint32_t length = big_u32(head.data());
    if (length + kCrcBytes <= reader_.size() - reader_.position()) return length;
  }
  reader_.seek(start);
  return std::nullopt;
}

/// Reads a chunk through and comes back to its data.
bool PngStream::check_chunk(std::uint32_t length) {
  const std::uint64_t data = reader_.position();
  std::uint32_t crc = first_crc();
  for (std::uint32_t left = length; left != 0;) {
    const std::uint32_t piece = std::min<std::uint32_t>(left, kInputBytes);
    if (!reader_.read_exactly(input_.get(), piece)) return false;
    crc = crc32_gzip_refl(crc, input_.get(), piece);
    left -= piece;
  }
  std::array<std::uint8_t, kCrcBytes> stored{};
  const bool is_read = reader_.read_exactly(stored.data(), stored.size());
  reader_.seek(data);
  return is_read && crc == big_u32(stored.data());
}

/// Distances beyond the window that the first byte of a zlib stream states are for libpng to judge.
bool PngStream::has_usual_window(std::uint8_t first) const {
  constexpr unsigned kLargest = 7;
  const unsigned log2_window = first >> 4;
  return log2_window == kLargest || (log2_window < kLargest && size_ <= std::uint64_t{256} << log2_window);
}

}  // namespace nvo
