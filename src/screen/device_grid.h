#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace nvo {

/// How one axis of the source grid maps to the device grid; all in f32, as the print depends on every
/// rounding.
struct DeviceScale {
  float x = 1.0f, y = 1.0f;  ///< source pixels per device dot

  DeviceScale(std::uint32_t src_dpi, std::uint32_t x_dpi, std::uint32_t y_dpi)
      : x(static_cast<float>(src_dpi) / static_cast<float>(x_dpi)),
        y(static_cast<float>(src_dpi) / static_cast<float>(y_dpi)) {}
};

/// Device dots of an axis of `source` pixels; at least 1. A grid beyond 32 bits counts as the largest 32-bit
/// one, which no `DropMap` can hold.
inline std::uint32_t device_extent(std::uint32_t source, float scale) {
  constexpr float kBeyondU32 = 4294967296.0f;
  const long dots = std::lround(std::min(static_cast<float>(source) / scale, kBeyondU32));
  return static_cast<std::uint32_t>(
      std::clamp(dots, 1L, static_cast<long>(std::numeric_limits<std::uint32_t>::max())));
}

/// Device rows that belong to a strip: `first` up to, not including, `end`.
struct DeviceRows {
  std::uint32_t first = 0, end = 0;
};

/// Rows of strip `src_y` .. `src_y + rows - 1` on a device grid of `dev_h` rows. Adjacent strips meet without
/// a gap.
inline DeviceRows device_rows_of_strip(std::uint32_t src_y, std::uint32_t rows, float scale_y,
                                       std::uint32_t dev_h) {
  const long first = std::min<long>(dev_h, std::lround(static_cast<float>(src_y) / scale_y));
  const float bottom = static_cast<float>(std::uint64_t{src_y} + rows);
  const long end = std::min<long>(dev_h, std::max(std::lround(bottom / scale_y), first));
  return {static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(end)};
}

/// Source index nearest to the centre of device index `i` of `device` on an axis of `source` pixels.
inline std::uint32_t nearest_source_index(std::uint32_t i, std::uint32_t device, std::uint32_t source) {
  if (device == 0 || source < 2) return 0;
  const double position =
      (static_cast<double>(source) / static_cast<double>(device)) * (static_cast<double>(i) + 0.5) - 0.5;
  return static_cast<std::uint32_t>(
      std::llround(std::clamp(position, 0.0, static_cast<double>(source) - 1.0)));
}

}  // namespace nvo
