#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "image/raster_source.h"

namespace nvo {

/// What all raster sources have in common: counters, the checks of a request, and regions cropped out of
/// bands. A format supplies `read_band`.
class BandedRasterSource : public RasterSource {
 public:
  const ImageMeta& metadata() const final { return meta_; }
  RasterReadStats stats() const final { return stats_; }

  bool read_rows(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                 std::string* error) final;
  bool read_region(const RasterRegion& region, std::vector<std::uint8_t>& out, std::string* error) override;

 protected:
  explicit BandedRasterSource(ImageMeta meta) : meta_(std::move(meta)) {}

  std::size_t row_bytes() const { return std::size_t{meta_.width} * meta_.channel_count; }

  /// Fills `out` with at least one row; the range lies within the image.
  virtual bool read_band(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                         std::string& error) = 0;
  /// The same for a rectangle; for formats that have no cheaper way it is cropped out of `read_rows`.
  virtual bool read_rectangle(const RasterRegion& region, std::vector<std::uint8_t>& out, std::string& error);

  ImageMeta meta_;
  RasterReadStats stats_;
};

}  // namespace nvo
