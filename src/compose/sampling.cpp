#include "compose/sampling.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace nvo {
namespace {

float linear_from_srgb(std::uint8_t byte) {
  const float v = static_cast<float>(byte) / 255.0f;
  return v <= 0.04045f ? v / 12.92f : std::pow((v + 0.055f) / 1.055f, 2.4f);
}

/// Bisection over bit patterns, which order positive floats.
float least_light_of(std::uint8_t byte) {
  auto below = std::bit_cast<std::uint32_t>(0.0f);
  auto reached = std::bit_cast<std::uint32_t>(1.0f);
  while (reached - below > 1) {
    const std::uint32_t middle = below + (reached - below) / 2;
    (srgb_from_linear(std::bit_cast<float>(middle)) >= byte ? reached : below) = middle;
  }
  return std::bit_cast<float>(reached);
}

}  // namespace

AxisSample map_axis_bilinear(std::uint32_t i, std::uint32_t n, std::uint32_t s) {
  if (n == 0 || s <= 1) return {};
  if (n == s) return {std::min(s - 1, i), std::min(s - 1, i + 1), 0.0f};  // what the formula gives, exactly
  const double scale = static_cast<double>(s) / static_cast<double>(n);
  const double centre =
      std::clamp(scale * (static_cast<double>(i) + 0.5) - 0.5, 0.0, static_cast<double>(s) - 1.0);
  const double floor = std::floor(centre);
  const auto lo = static_cast<std::uint32_t>(floor);
  return {lo, std::min(s - 1, lo + 1), static_cast<float>(centre - floor)};
}

AxisSpan map_axis_box(std::uint32_t i, std::uint32_t n, std::uint32_t s) {
  if (n == 0 || s == 0) return {};
  if (s == 1) return {0, 1};
  const double samples = s;
  const double count = n;
  const double start = std::floor(static_cast<double>(i) * samples / count);
  const double end = std::ceil((static_cast<double>(i) + 1.0) * samples / count);
  AxisSpan span{static_cast<std::uint32_t>(std::min(start, samples)),
                static_cast<std::uint32_t>(std::min(end, samples))};
  if (span.end <= span.start) span.end = span.start + 1;
  return {std::min(span.start, s - 1), std::min(span.end, s)};
}

std::uint8_t bilinear_linear_light(std::uint8_t p00, std::uint8_t p10, std::uint8_t p01, std::uint8_t p11,
                                   float fx, float fy) {
  const std::array<float, 256>& light = LinearLight::instance().decode_table();
  return srgb_from_linear(BilinearWeights(fx, fy).mix(light[p00], light[p10], light[p01], light[p11]));
}

std::uint8_t srgb_from_linear(float light) {
  const float v = std::clamp(light, 0.0f, 1.0f);
  const float e = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 0.41666666f) - 0.055f;
  return truncate_to_byte(e * 255.0f + 0.5f);
}

const LinearLight& LinearLight::instance() {
  static const LinearLight curve;
  return curve;
}

LinearLight::LinearLight() {
  for (unsigned byte = 0; byte < 256; ++byte) {
    decode_[byte] = linear_from_srgb(static_cast<std::uint8_t>(byte));
    round_trip_is_identity_ = round_trip_is_identity_ && srgb_from_linear(decode_[byte]) == byte;
    least_light_[byte] = byte == 0 ? 0.0f : least_light_of(static_cast<std::uint8_t>(byte));
  }
  least_light_[256] = 2.0f;
  for (std::size_t cell = 0; cell <= kCells; ++cell)
    cell_floor_[cell] = srgb_from_linear(static_cast<float>(cell) / static_cast<float>(kCells));
}

}  // namespace nvo
