#pragma once

#include <cstdint>
#include <span>

#include "image/pdf/spot_content.h"

namespace nvo {

/// A plane of width x height bytes in which paint is 255.
struct MaskView {
  std::uint8_t* data = nullptr;
  std::uint32_t width = 0, height = 0;

  std::uint8_t* row(std::uint32_t y) const { return data + std::uint64_t{y} * width; }
};

// Both paint every pixel that their rule names, and what they do is the same on every machine. They return
// false, with the shape unfinished, when the work runs out.

/// Fills one subpath by the even-odd rule, sampled at the middle of each row; spans are rounded outward, so
/// every pixel touched on that line is painted. Fewer than three points paint nothing.
bool fill_subpath(std::span<const DevicePoint> points, const MaskView& mask, WorkBudget& work);

/// Paints each pixel whose centre is at most `radius` away from the line between two points: a stroke with
/// round ends.
bool stroke_segment(DevicePoint from, DevicePoint to, double radius, const MaskView& mask, WorkBudget& work);

}  // namespace nvo
