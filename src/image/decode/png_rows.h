#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "image/decode/byte_reader.h"
#include "image/decode/png_stream.h"

namespace nvo {

/// A PNG that most files are like: 8 bits a sample, not interlaced, no palette and no tRNS chunk.
struct PlainPng {
  std::uint64_t first_idat = 0;  ///< position of the chunk
  std::size_t width = 0, height = 0;
  std::size_t samples = 0;  ///< 1 gray, 2 gray and alpha, 3 RGB, 4 RGBA

  std::size_t row_bytes() const { return 1 + width * samples; }  ///< unpacked, with the filter type
};

/// The rows of a plain PNG as RGBA, several times as fast as libpng has them. A row is given only when all
/// that libpng looks at before it gives that row is known to be sound, so that libpng can always be asked for
/// what comes next, and is whatever the matter: these rows just end.
class PngRows {
 public:
  /// Rows longer than this are rare, and would need much memory here.
  static bool can_read(const PlainPng& png);

  PngRows(ByteReader& reader, const PlainPng& png);

  /// Writes the next row, four bytes a pixel; false if there is none to be had here. Throws system_error
  /// where the file can't be read.
  bool read_row(std::uint8_t* rgba);
  std::size_t rows_given() const { return given_; }

 private:
  bool decode_block();

  ByteReader& reader_;
  PlainPng png_;
  PngStream stream_;
  std::size_t given_ = 0, decoded_ = 0, first_ = 0;  // rows; first_ is that of the block
  std::size_t filtered_room_, filtered_end_ = 0, filtered_next_ = 0;
  std::unique_ptr<std::uint8_t[]> filtered_, block_;  // the block begins with the row above it
};

}  // namespace nvo
