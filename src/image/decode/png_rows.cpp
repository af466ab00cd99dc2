#include "image/decode/png_rows.h"

#include <algorithm>
#include <cstring>

#include "image/decode/png_unfilter.h"
#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::size_t kBlockBytes = 256 << 10;  // with the block of RGBA it stays in the cache
constexpr std::size_t kMaxRowBytes = 1 << 20;

std::size_t rows_of_block(const PlainPng& png) {
  return std::min(png.height, std::max<std::size_t>(2, kBlockBytes / png.row_bytes()));
}

}  // namespace

bool PngRows::can_read(const PlainPng& png) {
  return png.width != 0 && png.height != 0 && png.row_bytes() <= kMaxRowBytes;
}

PngRows::PngRows(ByteReader& reader, const PlainPng& png)
    : reader_(reader),
      png_(png),
      stream_(reader, png.first_idat, std::uint64_t{png.height} * png.row_bytes()),
      filtered_room_(rows_of_block(png) * png.row_bytes() + 1),
      filtered_(std::make_unique_for_overwrite<std::uint8_t[]>(filtered_room_)),
      block_(
          std::make_unique_for_overwrite<std::uint8_t[]>((1 + rows_of_block(png)) * png.width * kRgbaBytes)) {
  std::memset(block_.get(), 0, png.width * kRgbaBytes);
}

bool PngRows::read_row(std::uint8_t* rgba) {
  if (given_ == decoded_ && !decode_block()) {
    reader_.require_sound();
    return false;
  }
  const std::size_t bytes = png_.width * kRgbaBytes;
  std::memcpy(rgba, block_.get() + (1 + given_ - first_) * bytes, bytes);
  ++given_;
  return true;
}

/// Unpacks and unfilters the next rows. zlib looks at what stands behind the last byte of a row until it
/// meets another one or the end of all, and refuses the row where it finds damage there. So a row counts as
/// sound only when a byte behind it has come out.
bool PngRows::decode_block() {
  const std::size_t rgba_bytes = png_.width * kRgbaBytes, row_bytes = png_.row_bytes();
  const std::size_t left = png_.height - decoded_;
  if (left == 0 || stream_.is_broken()) return false;
  std::memmove(block_.get(), block_.get() + (decoded_ - first_) * rgba_bytes, rgba_bytes);
  first_ = decoded_;

  filtered_end_ -= filtered_next_;
  std::memmove(filtered_.get(), filtered_.get() + filtered_next_, filtered_end_);
  filtered_next_ = 0;
  if (!stream_.has_ended())
    filtered_end_ += stream_.read({filtered_.get() + filtered_end_, filtered_room_ - filtered_end_});
  if (stream_.is_broken() || filtered_end_ == 0) return false;
  const std::size_t all = left * row_bytes;
  if (stream_.has_ended() ? filtered_end_ != all : filtered_end_ > all) return false;

  const std::size_t sound = stream_.has_ended() ? left : (filtered_end_ - 1) / row_bytes;
  const std::size_t done =
      unfilter_png_rows({filtered_.get(), png_.width, png_.samples}, sound, block_.get());
  decoded_ += done;
  filtered_next_ = done * row_bytes;
  return done != 0;
}

}  // namespace nvo
