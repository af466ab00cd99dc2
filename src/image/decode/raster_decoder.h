#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/decode/byte_reader.h"

namespace nvo {

/// A file that cannot be decoded; the text says why, for people.
struct DecodeError : std::runtime_error {
  using runtime_error::runtime_error;
};

inline constexpr std::size_t kRgbaBytes = 4;

/// What a file's header says. Resolutions are dots per inch, 0 where the file states none.
struct RasterInfo {
  std::uint32_t width = 0, height = 0;
  double dpi_x = 0.0, dpi_y = 0.0;
  bool has_alpha = false;          ///< by the pixel format alone; a PNG's tRNS chunk is not counted
  bool needs_whole_frame = false;  ///< the whole image has to be in memory before its first row is known
};

/// Pixels of one PNG, JPEG, BMP or WebP file as 8-bit RGBA, row by row from the top. Alpha is not
/// premultiplied, 255 for formats without alpha. Deeper samples are scaled with rounding; gamma, colour
/// profiles and rotation tags are ignored. One thread at a time.
///
/// Damaged pixel data is an error, never a gray area. Files can't make a decoder take much more memory than a
/// few rows, or one frame where `needs_whole_frame` is set (the caller limits its size before `start`).
class RasterDecoder {
 public:
  virtual ~RasterDecoder() = default;

  const RasterInfo& info() const { return info_; }
  std::size_t row_bytes() const { return std::size_t{info_.width} * kRgbaBytes; }

  /// Call once before the first row. Throws DecodeError when the file is too short to hold the image that its
  /// header claims. Neither slow nor greedy.
  void start();

  /// Writes the next row, `row_bytes()` long. Throws DecodeError; no row can be read after that.
  virtual void read_row(std::uint8_t* rgba) = 0;

  /// Fills `pixels` with the whole image, instead of reading its rows. Throws DecodeError.
  virtual void read_image(std::vector<std::uint8_t>& pixels);

 protected:
  virtual void prepare() = 0;

  RasterInfo info_;
};

/// Opens a file by its content, whatever its name. Null when there is no such file or it is of another
/// format; throws DecodeError when its header is damaged. A side may be 0.
std::unique_ptr<RasterDecoder> open_raster_decoder(const std::string& path);

// One format each; the reader stands at the file's start.
std::unique_ptr<RasterDecoder> open_png_decoder(ByteReader reader);
std::unique_ptr<RasterDecoder> open_jpeg_decoder(ByteReader reader);
std::unique_ptr<RasterDecoder> open_bmp_decoder(ByteReader reader);
std::unique_ptr<RasterDecoder> open_webp_decoder(ByteReader reader);

}  // namespace nvo
