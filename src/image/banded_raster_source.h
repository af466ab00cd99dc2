#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "image/raster_source.h"

namespace nvo {

/// What all raster sources have in common: counters, the checks of a request, regions cropped out of bands,
/// and the whole image in memory where bands cannot be read. A format supplies `read_band` and
/// `decode_full_image`.
class BandedRasterSource : public RasterSource {
 public:
  const ImageMeta& metadata() const final { return meta_; }
  RasterReadStats stats() const final { return stats_; }

  bool read_rows(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                 std::string* error) final;
  bool read_region(const RasterRegion& region, std::vector<std::uint8_t>& out, std::string* error) override;

 protected:
  /// `format` is for messages.
  BandedRasterSource(ImageMeta meta, std::string format, SharedFailures failures)
      : meta_(std::move(meta)), failures_(std::move(failures)), format_(std::move(format)) {}

  std::size_t row_bytes() const { return std::size_t{meta_.width} * meta_.channel_count; }

  /// Fills `out` with at least one row; the range lies within the image.
  virtual bool read_band(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                         std::string& error) = 0;
  /// The same for a rectangle; for formats that have no cheaper way it is cropped out of `read_rows`.
  virtual bool read_rectangle(const RasterRegion& region, std::vector<std::uint8_t>& out, std::string& error);

  /// Fills `out` from the whole image, which is decoded when this is first called. A failure of that is
  /// remembered for all sources of the file.
  bool read_from_full_image(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                            std::string& error);

  ImageMeta meta_;
  RasterReadStats stats_;
  SharedFailures failures_;
  std::vector<std::uint8_t> full_image_;  ///< empty until it is needed

 private:
  /// All pixels; throws when they cannot be had.
  virtual std::vector<std::uint8_t> decode_full_image() = 0;

  bool require_full_image(std::string& error);
  std::string try_full_decode();

  std::string format_;
};

}  // namespace nvo
