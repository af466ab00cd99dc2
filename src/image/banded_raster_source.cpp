#include "image/banded_raster_source.h"

#include <cstring>
#include <exception>

#include "core/machine_failure.h"

namespace nvo {
namespace {

/// Moves `region`'s columns together; `pixels` holds its rows in full width.
void crop_columns(const RasterRegion& region, std::size_t row_bytes, std::size_t pixel_bytes,
                  std::vector<std::uint8_t>& pixels) {
  const std::size_t kept = region.width * pixel_bytes;
  const std::uint8_t* from = pixels.data() + region.x * pixel_bytes;
  std::uint8_t* to = pixels.data();
  for (std::uint32_t row = 0; row < region.height; ++row, from += row_bytes, to += kept)
    std::memmove(to, from, kept);
  pixels.resize(kept * region.height);
}

bool is_empty(const ImageMeta& meta) {
  return meta.width == 0 || meta.height == 0 || meta.channel_count == 0;
}

bool fits(std::uint32_t start, std::uint32_t count, std::uint32_t limit) {
  return start < limit && count <= limit - start;
}

}  // namespace

bool BandedRasterSource::read_rows(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                                   std::string* error) {
  std::string unwanted;
  std::string& text = error ? *error : unwanted;
  ++stats_.row_reads;
  text.clear();
  if (rows == 0) {
    out.clear();
    return true;
  }
  if (is_empty(meta_)) {
    text = "raster source has empty metadata";
    return false;
  }
  if (!fits(y, rows, meta_.height)) {
    text = "requested row range is out of bounds";
    return false;
  }
  return read_band(y, rows, out, text);
}

bool BandedRasterSource::read_region(const RasterRegion& region, std::vector<std::uint8_t>& out,
                                     std::string* error) {
  std::string unwanted;
  std::string& text = error ? *error : unwanted;
  ++stats_.region_reads;
  text.clear();
  if (region.width == 0 || region.height == 0) {
    out.clear();
    return true;
  }
  if (is_empty(meta_)) {
    text = "raster source has empty metadata";
    return false;
  }
  if (!fits(region.x, region.width, meta_.width) || !fits(region.y, region.height, meta_.height)) {
    text = "requested region is out of bounds";
    return false;
  }
  return read_rectangle(region, out, text);
}

bool BandedRasterSource::read_rectangle(const RasterRegion& region, std::vector<std::uint8_t>& out,
                                        std::string& error) {
  if (!read_rows(region.y, region.height, out, &error)) return false;
  if (region.width < meta_.width) crop_columns(region, row_bytes(), meta_.channel_count, out);
  return true;
}

bool BandedRasterSource::read_from_full_image(std::uint32_t y, std::uint32_t rows,
                                              std::vector<std::uint8_t>& out, std::string& error) {
  if (!require_full_image(error)) return false;
  const auto* first = full_image_.data() + y * row_bytes();
  out.assign(first, first + rows * row_bytes());
  return true;
}

bool BandedRasterSource::require_full_image(std::string& error) {
  if (!full_image_.empty()) return true;
  if (const auto known = failures_->failure(DecodeStage::whole_image)) {
    error = *known;
    return false;
  }
  error = try_full_decode();
  if (error.empty()) return true;
  failures_->remember(DecodeStage::whole_image, error);
  return false;
}

/// Empty, or why there is no image.
std::string BandedRasterSource::try_full_decode() try {
  full_image_ = decode_full_image();
  if (full_image_.empty()) return format_ + " full decode produced empty image";
  ++stats_.full_decodes;
  return {};
} catch (const std::exception& failure) {
  rethrow_machine_failure();
  return failure.what();
} catch (...) {
  return "unknown " + format_ + " decode error";
}

}  // namespace nvo
