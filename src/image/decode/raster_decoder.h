#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/decode/byte_reader.h"
#include "image/decode/exif.h"
#include "image/image_claim.h"

namespace nvo {

/// A file that cannot be decoded; the text says why, for people.
struct DecodeError : std::runtime_error {
  using runtime_error::runtime_error;
};

inline constexpr std::size_t kRgbaBytes = 4;

/// What a file's header says. Resolutions are dots per inch, 0 where the file states none.
struct RasterInfo {
  const char* format = "";  ///< "PNG" and so on
  std::uint32_t width = 0, height = 0;
  double dpi_x = 0.0, dpi_y = 0.0;
  bool has_alpha = false;               ///< by the pixel format alone; a PNG's tRNS chunk is not counted
  bool has_transparency_chunk = false;  ///< a PNG's tRNS, in front of its pixels
  bool needs_whole_frame = false;       ///< the whole image has to be in memory before its first row is known
  bool resolution_is_damaged = false;   ///< one is there, in a part of the file that is damaged
  bool has_profile = false;             ///< a colour profile is embedded
  int orientation = ExifFacts::kUpright;
  std::uint32_t frames = 1;  ///< of an animation, which stands for its first
  double gamma = 0.0;        ///< a PNG's gAMA where nothing else in it says what its colours are
};

/// Pixels of one PNG, JPEG, BMP or WebP file as 8-bit RGBA, row by row from the top. Alpha is not
/// premultiplied, 255 for formats without alpha. Deeper samples are scaled with rounding; gamma, colour
/// profiles and rotation tags are ignored. One thread at a time.
///
/// Damaged pixel data is an error, never a gray area. Files can't make a decoder take much more memory than a
/// few rows, or one frame where `needs_whole_frame` is set (the caller limits its size before `start`).
/// Besides DecodeError all functions throw what a failure of the machine is: bad_alloc where memory runs out,
/// whatever the library says of it, and system_error where the file can't be read. Damage that costs no row
/// but may change pixels, and alpha that is there but not used, are logged once as a warning.
class RasterDecoder {
 public:
  virtual ~RasterDecoder() = default;

  const RasterInfo& info() const { return info_; }
  std::size_t row_bytes() const { return std::size_t{info_.width} * kRgbaBytes; }

  /// By the header alone, as far as the format has a bound for what a file of its length can hold.
  virtual ImageClaim claim() const = 0;

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

/// Opens a file by its content, whatever its name. Null when the reader isn't open or the file is of another
/// format; throws DecodeError when its header is damaged. A side may be 0.
std::unique_ptr<RasterDecoder> open_raster_decoder(ByteReader reader);

/// One line on what the film has other than a viewer may show.
void warn_of_art(const std::string& path, const std::string& text);

// One format each; the reader stands at the file's start.
std::unique_ptr<RasterDecoder> open_png_decoder(ByteReader reader);
std::unique_ptr<RasterDecoder> open_jpeg_decoder(ByteReader reader);
std::unique_ptr<RasterDecoder> open_bmp_decoder(ByteReader reader);
std::unique_ptr<RasterDecoder> open_webp_decoder(ByteReader reader);

/// A PNG by libpng alone, which `open_png_decoder` asks only where a file is unusual or damaged. The same
/// rows, failures and warnings; for tests and benchmarks.
std::unique_ptr<RasterDecoder> open_libpng_decoder(ByteReader reader);

}  // namespace nvo
