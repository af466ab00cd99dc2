#include "rip/coverage_planes.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace nvo {
namespace {

// The lightness of a pixel, straight from its definition.
bool is_light(const std::uint8_t* ink, float threshold) {
  const float u = 0.003921569f;
  const float c = 1 - static_cast<float>(ink[0]) * u, m = 1 - static_cast<float>(ink[1]) * u;
  const float y = 1 - static_cast<float>(ink[2]) * u, k = 1 - static_cast<float>(ink[3]) * u;
  const float x = c * k * 0.2126f + m * k * 0.7152f + y * k * 0.0722f;
  const float f = x > 0.008856f ? std::cbrt(x) : 7.787f * x + 0.13793103f;
  return std::clamp(116.0f * f - 16.0f, 0.0f, 100.0f) >= threshold;
}

TEST(CoveragePlanes, EqualThePlainDefinition) {
  constexpr std::size_t kCount = 400'000;
  std::mt19937 random(7);
  std::vector<std::uint8_t> planes[4], coverage(kCount), light(kCount);
  for (auto& plane : planes)
    for (std::size_t i = 0; i < kCount; ++i)
      plane.push_back(static_cast<std::uint8_t>(i < 256 ? i : random() >> (random() % 8)));
  std::fill_n(planes[3].begin(), 256, std::uint8_t{0});  // pure grays
  const ColourPlanes inks{planes[0].data(), planes[1].data(), planes[2].data(), planes[3].data(), kCount};

  // Thresholds of every pixel's own lightness put each decision on the edge.
  std::vector<float> thresholds = {0, 1, 7.9995f, 7.9996f, 8, 8.0001f, 50, 85, 99.9999f, 100};
  for (int i = 0; i < 256; i += 15) thresholds.push_back(printed_lightness(static_cast<float>(i) / 255.0f));
  colour_coverage(inks, coverage.data());
  for (const float threshold : thresholds) {
    LightProtection(threshold).protect(inks, light.data());
    for (std::size_t i = 0; i < kCount; ++i) {
      const std::uint8_t ink[4] = {planes[0][i], planes[1][i], planes[2][i], planes[3][i]};
      ASSERT_EQ(coverage[i], *std::max_element(ink, ink + 4));
      ASSERT_EQ(light[i], is_light(ink, threshold) ? 255 : 0) << threshold << " at " << i;
    }
  }
}

}  // namespace
}  // namespace nvo
