#include "rip/coverage_planes.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace nvo {
namespace {

constexpr float kByteToUnit = 0.003921569f;  // 1 / 255
constexpr float kCubeRootFrom = 0.008856f;   // CIE 1976 L*: below it the function is linear

float printed_luminance(std::uint8_t cyan, std::uint8_t magenta, std::uint8_t yellow, std::uint8_t black) {
  const float c = 1.0f - static_cast<float>(cyan) * kByteToUnit;
  const float m = 1.0f - static_cast<float>(magenta) * kByteToUnit;
  const float y = 1.0f - static_cast<float>(yellow) * kByteToUnit;
  const float k = 1.0f - static_cast<float>(black) * kByteToUnit;
  return c * k * 0.2126f + m * k * 0.7152f + y * k * 0.0722f;
}

// Non-negative floats sort like their bits.
float from_order(std::uint32_t order) {
  return std::bit_cast<float>(order);
}

}  // namespace

void colour_coverage(const ColourPlanes& planes, std::uint8_t* out) {
  for (std::size_t i = 0; i < planes.count; ++i)
    out[i] = std::max(std::max(planes.c[i], planes.m[i]), std::max(planes.y[i], planes.k[i]));
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

void LightProtection::protect(const ColourPlanes& planes, std::uint8_t* out) const {
  const auto luminance = [&](std::size_t i) {
    return printed_luminance(planes.c[i], planes.m[i], planes.y[i], planes.k[i]);
  };
  if (by_luminance_) {
    for (std::size_t i = 0; i < planes.count; ++i) out[i] = luminance(i) >= least_luminance_ ? 255 : 0;
  } else {
    for (std::size_t i = 0; i < planes.count; ++i)
      out[i] = printed_lightness(luminance(i)) >= threshold_ ? 255 : 0;
  }
}

}  // namespace nvo
