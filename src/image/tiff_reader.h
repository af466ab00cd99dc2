#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/threads/thread_plan.h"
#include "image/image_claim.h"
#include "image/image_types.h"

namespace nvo {

/// Taken for a TIFF that states no resolution.
inline constexpr float kTiffDefaultDpi = 300.0f;

/// The tags of a TIFF (TIFF 6.0, BigTIFF) that this program works with.
struct TiffMeta {
  std::uint32_t width = 0, height = 0;
  std::uint16_t samples_per_pixel = 0;             ///< 1 to 64
  std::uint16_t bits_per_sample = 8;               ///< always 8 in a returned record
  float x_resolution = 0.0f, y_resolution = 0.0f;  ///< as stored, 0 when absent
  std::uint16_t resolution_unit = 1;               ///< 1 none, 2 inch, 3 centimetre
  float dpi_x = 0.0f, dpi_y = 0.0f;                ///< dots per inch, above 0
  bool is_bigtiff = false;
  bool is_rgb = false;  ///< also true for gray; false only for separated files
  bool is_gray = false;
  bool min_is_white = false;  ///< gray with photometric 0
  std::vector<ChannelInfo> channels;
};

/// Opens 8-bit interleaved TIFF and BigTIFF files, tells what each sample means and hands out raw samples,
/// all of them or a band of rows. The samples are the file's own, apart from min-is-white gray, which is
/// inverted. Failures are exceptions that begin "TiffReader: " and leave the reader usable; where the machine
/// fails, not the file, they are `bad_alloc` or `system_error`. One instance serves one thread at a time.
///
/// A band is read by decoding the strips or tile rows that it touches. The first two of them and the last
/// stay decoded, so a walk upwards through the image in bands that overlap a little decodes each strip once,
/// however many bands it spans. Small strips, and the tiles of a row, are decoded side by side on as many
/// threads as the plan gives composition, where the compression lets each stand alone (JPEG doesn't);
/// samples, log and failures are those of one thread. An open reader therefore holds up to three strips, of 2
/// GiB together (or three tile rows of at most 64 MiB each), and a strip or tile of at most 4 MiB for each
/// further thread; beyond that and the band itself nothing is allocated from what a header claims. A file
/// with larger strips or tiles than 2 GiB is refused. A read of the whole image decodes large ones to where
/// they stay.
class TiffReader {
 public:
  explicit TiffReader(const ThreadPlan& threads = ThreadPlan());
  ~TiffReader();
  TiffReader(TiffReader&&) noexcept;

  void open(const std::string& path);
  /// Validates the file's tags and logs them. The reads below repeat this, with all its logging.
  TiffMeta read_meta();
  /// What a person should know of the file beside its pixels.
  ImageRemarks remarks(const TiffMeta& meta);
  /// What the header claims against what the strips or tiles can hold.
  ImageClaim weigh(const TiffMeta& meta);
  /// All rows: height x width x samples_per_pixel bytes.
  std::vector<std::uint8_t> read_image();
  /// Rows `y` .. `y + rows - 1`; empty when `rows` is 0. Decodes only the strips or tiles that the band
  /// touches.
  std::vector<std::uint8_t> read_rows(std::uint32_t y, std::uint32_t rows);
  /// The same into `out`, whose memory is reused. After an exception its content is unspecified.
  void read_rows(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out);
  void close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace nvo
