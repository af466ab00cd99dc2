#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "art.h"

namespace nvo::bench {

/// Makes a file of an art's rows. Each function throws `runtime_error` where the file can't be written.
class RowSink {
 public:
  virtual ~RowSink() = default;
  /// The next `rows` rows from the top, `art.width` pixels each: a multiple of `kBandRows` but for the last
  /// call.
  virtual void take(const Pixel* pixels, int rows) = 0;
  /// After the last row.
  virtual void finish() = 0;
};

inline constexpr int kBandRows = 256;

struct TiffForm {
  enum class Samples { cmyk_white, rgba };
  Samples samples = Samples::cmyk_white;
  std::uint16_t compression;  ///< libtiff's number
  bool predictor = false;
  bool tiled = false;       ///< 256 x 256 pixels; otherwise in strips
  int rows_per_strip = 32;  ///< divides `kBandRows`
  int dpi = 300;
  int inks = 5;  ///< of C, M, Y, K and white those that are kept; the others are empty
};

std::unique_ptr<RowSink> tiff_sink(const std::string& path, const Art& art, const TiffForm& form);

/// RGBA, 300 dots per inch.
std::unique_ptr<RowSink> png_sink(const std::string& path, const Art& art);
/// RGB on white, quality 92, 300 dots per inch.
std::unique_ptr<RowSink> jpeg_sink(const std::string& path, const Art& art);

/// The gang sheet as a page with an image and soft mask for each cut-out, and some hundred boxes.
std::unique_ptr<RowSink> sheet_pdf_sink(const std::string& path, const Art& art);
/// One image on a page, 300 pixels an inch: CMYK, or with white as a spot colour.
std::unique_ptr<RowSink> image_pdf_sink(const std::string& path, const Art& art, bool white);

/// The amounts of C, M, Y and K without a header.
std::unique_ptr<RowSink> raw_cmyk_sink(const std::string& path, const Art& art);
/// The light that one of C, M, Y, K and white (0 to 4) leaves, as a portable gray map.
std::unique_ptr<RowSink> graymap_sink(const std::string& path, const Art& art, int ink);

}  // namespace nvo::bench
