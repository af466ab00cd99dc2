#include "image/pdf/page_tiff.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace nvo {
namespace {

constexpr std::size_t kRgbaBytes = 4;
constexpr std::size_t kEntryBytes = 12;
constexpr std::uint64_t kTablesOfRow = 8;  // each row may be a strip, with an offset and a size
constexpr std::uint64_t kOtherBytes = 64 * 1024;

/// Fields of a TIFF directory, by their numbers in the format.
enum Tag : std::uint16_t {
  kWidth = 256,
  kHeight = 257,
  kBitsPerSample = 258,
  kCompression = 259,
  kStripOffsets = 273,
  kSamplesPerPixel = 277,
  kRowsPerStrip = 278,
  kPlanarConfiguration = 284,
  kExtraSamples = 338,
};
constexpr std::uint16_t kShort = 3, kLong = 4;
constexpr std::uint32_t kUncompressed = 1, kInterleaved = 1, kMultipliedAlpha = 1;

std::uint32_t little_endian(const std::uint8_t* bytes, std::size_t count) {
  std::uint32_t value = 0;
  while (count > 0) value = value << 8 | bytes[--count];
  return value;
}

/// The first directory of a little-endian TIFF.
class Directory {
 public:
  explicit Directory(const PixelSpool& spool) : spool_(spool) {
    std::array<std::uint8_t, 8> header;
    spool.read_at(0, header.data(), header.size());
    if (std::memcmp(header.data(), "II*\0", 4) != 0) return;
    const std::uint32_t place = little_endian(&header[4], 4);
    std::array<std::uint8_t, 2> count;
    spool.read_at(place, count.data(), count.size());
    entries_.resize(little_endian(count.data(), 2) * kEntryBytes);
    spool.read_at(std::uint64_t{place} + count.size(), entries_.data(), entries_.size());
  }

  /// The values of a field, where it has `count` of them.
  std::optional<std::vector<std::uint32_t>> values(Tag tag, std::uint32_t count) const {
    for (std::size_t at = 0; at < entries_.size(); at += kEntryBytes) {
      const std::uint8_t* const entry = &entries_[at];
      const std::uint32_t type = little_endian(entry + 2, 2);
      if (little_endian(entry, 2) != tag) continue;
      if (little_endian(entry + 4, 4) != count || (type != kShort && type != kLong)) return std::nullopt;
      const std::size_t size = type == kShort ? 2 : 4;
      std::vector<std::uint8_t> bytes(std::max<std::size_t>(count * size, 4));
      if (count * size <= 4)
        std::copy_n(entry + 8, 4, bytes.begin());
      else
        spool_.read_at(little_endian(entry + 8, 4), bytes.data(), bytes.size());
      std::vector<std::uint32_t> values(count);
      for (std::size_t i = 0; i < count; ++i) values[i] = little_endian(&bytes[i * size], size);
      return values;
    }
    return std::nullopt;
  }

  /// The only value of a field; 0 where it has none or several.
  std::uint32_t value(Tag tag) const {
    const auto one = values(tag, 1);
    return one ? one->front() : 0;
  }

 private:
  const PixelSpool& spool_;
  std::vector<std::uint8_t> entries_;
};

std::string size_text(std::uint32_t width, std::uint32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

void divide_by_alpha(std::uint8_t* rgba, std::size_t pixels) {
  for (const std::uint8_t* const end = rgba + pixels * kRgbaBytes; rgba != end; rgba += kRgbaBytes) {
    const std::uint32_t alpha = rgba[3];
    if (alpha == 255) continue;
    for (int i = 0; i < 3; ++i)
      rgba[i] = alpha == 0 ? 0 : static_cast<std::uint8_t>((rgba[i] * 255u + alpha / 2) / alpha);
  }
}

bool read_page_tiff(const PixelSpool& spool, const RgbaTile& tile) {
  const Directory directory(spool);
  const std::uint32_t width = directory.value(kWidth), height = directory.value(kHeight);
  const std::uint32_t strip_rows = std::min(directory.value(kRowsPerStrip), height);
  const auto bits = directory.values(kBitsPerSample, kRgbaBytes);
  if (width == 0 || strip_rows == 0 || !bits || bits != std::vector<std::uint32_t>(kRgbaBytes, 8) ||
      directory.value(kSamplesPerPixel) != kRgbaBytes || directory.value(kCompression) != kUncompressed ||
      directory.value(kPlanarConfiguration) != kInterleaved ||
      directory.value(kExtraSamples) != kMultipliedAlpha)
    return false;
  if (width != tile.width || height != tile.height)
    throw std::runtime_error(
        "PdfRenderer: rendered PDF image dimensions did not match requested DPI: requested " +
        size_text(tile.width, tile.height) + ", got " + size_text(width, height));
  const auto strips = directory.values(kStripOffsets, (height - 1) / strip_rows + 1);
  if (!strips) return false;

  const std::size_t row_bytes = width * kRgbaBytes;
  for (std::uint32_t y = 0; y < height; ++y) {
    std::uint8_t* const row = tile.pixels + y * tile.stride;
    spool.read_at((*strips)[y / strip_rows] + y % strip_rows * std::uint64_t{row_bytes}, row, row_bytes);
    divide_by_alpha(row, width);
  }
  return true;
}

std::uint64_t max_page_tiff_bytes(std::uint32_t width, std::uint32_t height) {
  return (std::uint64_t{width} * kRgbaBytes + kTablesOfRow) * height + kOtherBytes;
}

}  // namespace nvo
