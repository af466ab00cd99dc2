#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <zlib.h>

#include "core/log.h"
#include "image/decode/raster_decoder.h"
#include "image/wic_image.h"
#include "memory_file.h"

namespace nvo::fuzz {

using OpenDecoder = std::unique_ptr<RasterDecoder> (*)(ByteReader reader);

/// What comes of a file: the rows that it gave and why no more followed, empty after the last one.
struct DecodedRows {
  std::vector<std::uint8_t> pixels;
  std::string failure;

  bool operator==(const DecodedRows&) const = default;
};

inline DecodedRows decode_rows(OpenDecoder open, const std::string& path) {
  constexpr std::uint64_t kMaxPixels = 4 << 20;  // larger images only cost time
  DecodedRows decoded;
  try {
    const auto decoder = open(ByteReader(path));
    const RasterInfo& info = decoder->info();
    if (info.width == 0 || std::uint64_t{info.width} * info.height > kMaxPixels) return decoded;
    decoder->start();
    std::vector<std::uint8_t> row(decoder->row_bytes());
    for (std::uint32_t y = 0; y < info.height; ++y) {
      decoder->read_row(row.data());
      decoded.pixels.insert(decoded.pixels.end(), row.begin(), row.end());
    }
  } catch (const std::exception& failure) {
    decoded.failure = failure.what();
  }
  return decoded;
}

/// Any bytes as an image: all rows, or an exception.
inline void decode_image(OpenDecoder open, const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(data, size);
  const HeldLog unheard;
  if (file.written()) decode_rows(open, file.path());
}

/// Makes the checksums of a PNG's chunks right, so that what is in them is looked at.
inline std::vector<std::uint8_t> with_right_checksums(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kSignatureBytes = 8, kHeadBytes = 8, kCrcBytes = 4;
  std::vector<std::uint8_t> png(data, data + size);
  for (std::size_t at = kSignatureBytes; at + kHeadBytes + kCrcBytes <= size;) {
    std::uint8_t* head = png.data() + at;
    const std::size_t length = std::size_t{head[0]} << 24 | head[1] << 16 | head[2] << 8 | head[3];
    if (length > size - at - kHeadBytes - kCrcBytes) break;
    const uLong crc = crc32(0, head + kHeadBytes / 2, static_cast<uInt>(kHeadBytes / 2 + length));
    for (int i = 0; i < 4; ++i)
      head[kHeadBytes + length + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
    at += kHeadBytes + length + kCrcBytes;
  }
  return png;
}

/// Any bytes as a PNG, with its checksums as they are and put right: the fast rows are libpng's, and so is
/// the end.
inline void compare_png_decoders(const std::uint8_t* data, std::size_t size) {
  const HeldLog unheard;
  for (const auto& png : {std::vector<std::uint8_t>(data, data + size), with_right_checksums(data, size)}) {
    const MemoryFile file(png.data(), png.size());
    if (file.written() &&
        decode_rows(open_png_decoder, file.path()) != decode_rows(open_libpng_decoder, file.path()))
      std::abort();
  }
}

/// Any bytes as a file of which only what the headers say is asked.
inline void probe_header(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(data, size);
  if (!file.written()) return;
  const HeldLog unheard;
  try {
    png_has_trns(file.path());
    probe_wic(file.path());
  } catch (const std::exception&) {
  }
}

}  // namespace nvo::fuzz
