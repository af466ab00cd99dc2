#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace nvo::test {

// What the choke derives from the four inks of a pixel, straight from the definition.

inline std::uint8_t plain_coverage(const std::uint8_t* ink) {
  return *std::max_element(ink, ink + 4);
}

inline std::uint8_t plain_light(const std::uint8_t* ink, float threshold) {
  const float u = 0.003921569f;
  const float c = 1 - static_cast<float>(ink[0]) * u, m = 1 - static_cast<float>(ink[1]) * u;
  const float y = 1 - static_cast<float>(ink[2]) * u, k = 1 - static_cast<float>(ink[3]) * u;
  const float x = c * k * 0.2126f + m * k * 0.7152f + y * k * 0.0722f;
  const float f = x > 0.008856f ? std::cbrt(x) : 7.787f * x + 0.13793103f;
  return std::clamp(116.0f * f - 16.0f, 0.0f, 100.0f) >= threshold ? 255 : 0;
}

}  // namespace nvo::test
