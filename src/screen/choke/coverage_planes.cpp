#include "screen/choke/coverage_planes.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "screen/kernels/coverage_steps.h"
#include "screen/kernels/instruction_set.h"

namespace nvo {
namespace {

constexpr float kCubeRootFrom = 0.008856f;  // CIE 1976 L*: below it the function is linear

// Non-negative floats sort like their bits.
float from_order(std::uint32_t order) {
  return std::bit_cast<float>(order);
}

}  // namespace

void colour_coverage(const ColourPlanes& planes, std::size_t y, std::uint8_t* out) {
  active_instruction_set().coverage.largest(planes.c.row(y), planes.m.row(y), planes.y.row(y),
                                            planes.k.row(y), planes.c.width(), out);
}

float printed_lightness(float luminance) {
  const float f = luminance > kCubeRootFrom ? std::cbrt(luminance) : 7.787f * luminance + 0.13793103f;
  return std::clamp(116.0f * f - 16.0f, 0.0f, 100.0f);
}

// A pixel passes by its luminance alone, and lightness rises with luminance but for the rounding of the cube
// root and the joint of the two branches. So the least luminance that passes, found by bisection, decides
// every pixel with one comparison, provided that no luminance near it contradicts; that is tried here, once a
// job. Further away the lightness differs from the threshold by far more than a rounding.
LightProtection::LightProtection(float threshold)
    : threshold_(threshold), least_luminance_(0.0f), by_luminance_(true) {
  constexpr std::uint32_t kNeighbourhood = 4096;  // f32 steps
  const std::uint32_t top = std::bit_cast<std::uint32_t>(2.0f);
  const auto passes = [&](std::uint32_t order) { return printed_lightness(from_order(order)) >= threshold_; };
  if (!passes(top)) {
    by_luminance_ = false;
    return;
  }
  std::uint32_t low = 0, high = top;  // the least order that passes lies in [low, high]
  while (low < high) {
    const std::uint32_t middle = low + (high - low) / 2;
    if (passes(middle))
      high = middle;
    else
      low = middle + 1;
  }
  least_luminance_ = from_order(low);
  const std::uint32_t first = low > kNeighbourhood ? low - kNeighbourhood : 0;
  for (std::uint32_t order = first; order < low + kNeighbourhood && by_luminance_; ++order)
    by_luminance_ = passes(order) == (order >= low);
  const std::uint32_t joint = std::bit_cast<std::uint32_t>(kCubeRootFrom);
  for (std::uint32_t order = joint - kNeighbourhood; order < joint + kNeighbourhood && by_luminance_; ++order)
    by_luminance_ = passes(order) == (order >= low);
}

void LightProtection::protect(const ColourPlanes& planes, std::size_t y, std::uint8_t* out) const {
  const std::uint8_t *cyan = planes.c.row(y), *magenta = planes.m.row(y), *yellow = planes.y.row(y),
                     *black = planes.k.row(y);
  const std::size_t count = planes.c.width();
  if (by_luminance_) {
    active_instruction_set().coverage.at_least(cyan, magenta, yellow, black, count, least_luminance_, out);
    return;
  }
  for (std::size_t i = 0; i < count; ++i) {
    const float luminance = coverage_steps::printed_luminance(cyan[i], magenta[i], yellow[i], black[i]);
    out[i] = printed_lightness(luminance) >= threshold_ ? 255 : 0;
  }
}

}  // namespace nvo
