#include "plan/sheet_geometry.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "core/checked.h"

namespace nvo {
namespace {

constexpr double kMaxPixels = static_cast<double>(kMaxU32);
constexpr double kInchNoise = 0.0001;            // source pixels
constexpr float kContentFitTolerance = 0.0001f;  // inches

[[noreturn]] void fail(const std::string& text) {
  throw std::runtime_error("StreamRip: " + text);
}

void require_dimension(float value, std::string_view label) {
  if (!std::isfinite(value) || value < 0.0f) fail("invalid " + std::string(label) + " dimension");
}

void require_coordinate(float value, std::string_view label) {
  if (!std::isfinite(value)) fail("invalid " + std::string(label) + " coordinate");
}

struct Extents {
  float min_x = 0.0f, min_y = 0.0f, max_x = 0.0f, max_y = 0.0f;
};

Extents extents_of(const std::vector<LayoutItem>& items) {
  Extents extents{std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                  std::numeric_limits<float>::lowest(), std::numeric_limits<float>::lowest()};
  for (const LayoutItem& item : items) {
    extents.min_x = std::min(extents.min_x, item.x_in);
    extents.min_y = std::min(extents.min_y, item.y_in);
    extents.max_x = std::max(extents.max_x, item.x_in + std::max(item.width_in, 0.0f));
    extents.max_y = std::max(extents.max_y, item.y_in + std::max(item.height_in, 0.0f));
  }
  return extents;
}

// The X axis of the film runs against the operator's view, hence the mirrored margins.
float content_left_edge(float content, const RipJobOptions& options) {
  const float left = std::max(options.sheet_margin_left_in, 0.0f);
  const float right = std::max(options.sheet_margin_right_in, 0.0f);
  const float usable = std::max(options.sheet_width_in - left - right, 0.0f);
  if (usable + kContentFitTolerance < content) return left;
  switch (options.sheet_placement_mode) {
    case SheetPlacementMode::align_left:
      return options.sheet_width_in - left - content;
    case SheetPlacementMode::align_center:
      return right + (usable - content) * 0.5f;
    case SheetPlacementMode::align_right:
      return right;
  }
  return left;
}

}  // namespace

float normalize_resolution(float file_dpi, float reference_dpi) {
  if (!(file_dpi > 0.0f)) return reference_dpi;
  if (std::fabs(file_dpi - reference_dpi) <= 0.5f) return reference_dpi;
  const float whole = std::round(file_dpi);
  return std::fabs(file_dpi - whole) <= 0.01f ? whole : file_dpi;
}

PlacedSize place_items(SheetLayout& layout, const RipJobOptions& options) {
  if (layout.items.empty()) return {};
  const Extents extents = extents_of(layout.items);
  if (!(options.sheet_width_in > 0.0f)) return {extents.max_x, extents.max_y};

  const float content = std::max(extents.max_x - extents.min_x, 0.0f);
  const float shift_x = content_left_edge(content, options) - extents.min_x;
  const float shift_y = std::max(options.sheet_margin_top_in, 0.0f) - extents.min_y;
  for (LayoutItem& item : layout.items) {
    item.x_in += shift_x;
    item.y_in += shift_y;
  }
  const PlacedSize placed{shift_x + extents.max_x, shift_y + extents.max_y};
  layout.height_in =
      std::max(placed.height_in + std::max(options.sheet_margin_bottom_in, 0.0f), shift_y + layout.height_in);
  return placed;
}

void pad_canvas(SheetLayout& layout, float pad_in) {
  for (LayoutItem& item : layout.items) {
    item.x_in += pad_in;
    item.y_in += pad_in;
  }
  layout.height_in = std::max(layout.height_in + 2.0f * pad_in, 0.0f);
}

SheetSize sheet_size(const SheetLayout& layout, PlacedSize placed, float pad_in, float configured_width_in) {
  require_dimension(layout.height_in, "sheet height");
  require_dimension(configured_width_in, "configured sheet width");
  require_dimension(placed.width_in, "placed sheet width");
  require_dimension(placed.height_in, "placed sheet height");
  SheetSize size{placed.width_in, placed.height_in};
  for (const LayoutItem& item : layout.items) {
    require_coordinate(item.x_in, "item x");
    require_coordinate(item.y_in, "item y");
    require_dimension(item.width_in, "item width");
    require_dimension(item.height_in, "item height");
    size.width_in = std::max(size.width_in, item.x_in + item.width_in);
    size.height_in = std::max(size.height_in, item.y_in + item.height_in);
  }
  if (!(size.width_in > 0.0f)) return size;
  const float pad = std::max(pad_in, 0.0f);
  size.width_in += pad;
  size.height_in += pad;
  size.height_in = std::max(size.height_in, layout.height_in);
  if (configured_width_in > 0.0f) size.width_in = std::max(size.width_in, configured_width_in + 2.0f * pad);
  return size;
}

std::uint32_t source_pixels(float value_in, std::uint32_t src_dpi, std::string_view label) {
  const double pixels = std::ceil(static_cast<double>(src_dpi) * static_cast<double>(value_in) - kInchNoise);
  if (std::isnan(pixels) || pixels > kMaxPixels)
    fail(std::string(label) + " source pixels exceed uint32 limit");
  return pixels > 0.0 ? static_cast<std::uint32_t>(pixels) : 0;
}

std::uint32_t device_pixels(std::uint32_t source_px, std::uint32_t src_dpi, std::uint32_t device_dpi,
                            std::string_view label) {
  const double dots = std::round(static_cast<double>(device_dpi) * static_cast<double>(source_px) /
                                 static_cast<double>(src_dpi));
  if (!std::isfinite(dots) || dots > kMaxPixels)
    fail(std::string(label) + " device pixels exceed uint32 limit");
  return static_cast<std::uint32_t>(std::max(dots, 1.0));
}

std::uint32_t device_row(std::uint32_t source_row, std::uint32_t source_rows, std::uint32_t src_dpi,
                         std::uint32_t y_dpi) {
  if (source_rows == 0 || src_dpi == 0 || y_dpi == 0) fail("invalid source/device Y mapping");
  const float scale = static_cast<float>(src_dpi) / static_cast<float>(y_dpi);
  if (!std::isfinite(scale) || !(scale > 0.0f)) fail("invalid source/device Y scale");
  const double total = static_cast<double>(static_cast<float>(source_rows) / scale);
  if (!std::isfinite(total) || total > kMaxPixels) fail("device height exceeds uint32 limit");
  const double row = static_cast<double>(static_cast<float>(source_row) / scale);
  if (!std::isfinite(row) || row > kMaxPixels) fail("device strip offset exceeds uint32 limit");
  return static_cast<std::uint32_t>(std::min(std::round(row), std::max(std::round(total), 1.0)));
}

std::uint32_t strip_count(std::uint32_t src_h, std::uint32_t strip_h_px) {
  if (strip_h_px == 0) throw std::invalid_argument("StreamRip: strip_h_px must be > 0");
  const std::uint64_t count = (std::uint64_t{src_h} + strip_h_px - 1) / strip_h_px;
  if (count > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()))
    fail("strip count exceeds progress counter limit");
  return static_cast<std::uint32_t>(count);
}

std::uint32_t resampling_halo_rows(std::uint32_t src_dpi, std::uint32_t y_dpi, bool both_hard) {
  if (src_dpi == 0 || y_dpi == 0 || y_dpi % src_dpi == 0) return 0;
  if (both_hard) return 1;
  const double scale = static_cast<double>(src_dpi) / static_cast<double>(y_dpi);
  const double rows = std::max(std::ceil(scale) + 2.0, 1.0);
  if (!std::isfinite(rows) || rows > kMaxPixels) fail("resampling halo exceeds uint32 limit");
  return static_cast<std::uint32_t>(rows);
}

}  // namespace nvo
