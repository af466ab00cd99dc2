#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "image/decode/byte_reader.h"

namespace nvo {

enum class BmpCompression : std::uint8_t { none, rle8, rle4 };

/// Position of one channel inside a 16- or 32-bit pixel. No bits means that the file doesn't have it.
struct BmpField {
  int shift = 0, bits = 0;
};

/// A Windows or OS/2 bitmap's headers and palette, checked: sizes of pixels, compression, masks and the place
/// of the data go together. Format: "Bitmap Storage", Windows documentation, with the OS/2 1.x and 2.x
/// variants.
struct BmpHeader {
  std::uint32_t width = 0, height = 0;
  bool top_down = false;
  int bits_per_pixel = 0;  ///< 1, 4, 8, 16, 24 or 32
  BmpCompression compression = BmpCompression::none;
  double dpi_x = 0.0, dpi_y = 0.0;                   ///< 0 where not stated
  std::array<BmpField, 4> fields;                    ///< red, green, blue, alpha of 16 and 32 bits
  std::vector<std::array<std::uint8_t, 4>> palette;  ///< RGBA, one entry for every possible index
  bool has_profile = false;                          ///< embedded or named
  bool has_spare_byte = false;                       ///< 32 bits of which no field takes the highest eight
  std::uint64_t data_start = 0;                      ///< position in the file

  /// Of an uncompressed row, with its padding to four bytes.
  std::uint64_t stride() const { return (std::uint64_t{width} * bits_per_pixel + 31) / 32 * 4; }
};

/// Throws DecodeError.
BmpHeader read_bmp_header(ByteReader& reader);

}  // namespace nvo
