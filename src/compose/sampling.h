#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "compose/float4.h"

namespace nvo {

/// Where a destination pixel falls on one source axis: between samples `lo` and `hi`, `frac` of the way to
/// `hi`.
struct AxisSample {
  std::uint32_t lo = 0, hi = 0;
  float frac = 0.0f;

  std::uint32_t nearest() const { return frac < 0.5f ? lo : hi; }
};

/// Source samples [start, end) that a destination pixel covers on one axis.
struct AxisSpan {
  std::uint32_t start = 0, end = 0;
};

/// Maps pixel `i` of `n` by its centre onto an axis of `s` samples. At 1:1 every `frac` is exactly 0.
AxisSample map_axis_bilinear(std::uint32_t i, std::uint32_t n, std::uint32_t s);

/// The samples that pixel `i` of `n` touches; at least one, unless there is nothing to map.
AxisSpan map_axis_box(std::uint32_t i, std::uint32_t n, std::uint32_t s);

/// Weights of the four samples around a point, in the order of the samples p00, p10, p01, p11 (x first).
struct BilinearWeights {
  float w00, w10, w01, w11;

  BilinearWeights(float fx, float fy)
      : w00((1.0f - fy) * (1.0f - fx)), w10((1.0f - fy) * fx), w01(fy * (1.0f - fx)), w11(fy * fx) {}

  float mix(float p00, float p10, float p01, float p11) const {
    return w00 * p00 + w10 * p10 + w01 * p01 + w11 * p11;
  }
};

/// A value of a byte's range, rounded half up by the 0.5 that the caller has added.
inline std::uint8_t truncate_to_byte(float value) {
  const float bounded = value < 0.0f ? 0.0f : value > 255.0f ? 255.0f : value;
  return static_cast<std::uint8_t>(static_cast<int>(bounded));
}

inline std::uint8_t bilinear_byte(std::uint8_t p00, std::uint8_t p10, std::uint8_t p01, std::uint8_t p11,
                                  float fx, float fy) {
  return truncate_to_byte(BilinearWeights(fx, fy).mix(p00, p10, p01, p11) + 0.5f);
}

/// The same on light instead of on sRGB values.
std::uint8_t bilinear_linear_light(std::uint8_t p00, std::uint8_t p10, std::uint8_t p01, std::uint8_t p11,
                                   float fx, float fy);

/// sRGB byte of an amount of linear light, by the formula of IEC 61966-2-1 in single precision.
std::uint8_t srgb_from_linear(float light);

/// The sRGB curve of IEC 61966-2-1 in both directions. Immutable; any thread may use it.
class LinearLight {
 public:
  static const LinearLight& instance();

  /// Amounts of light, 0 to 1.
  const std::array<float, 256>& decode_table() const { return decode_; }

  /// `srgb_from_linear` without its power: the formula rises with the light, so that the least light of each
  /// byte decides. `light` lies in [0, 1].
  std::uint8_t encode(float light) const {
    return encode_in_cell(light, static_cast<std::uint32_t>(cells_of(Float4::all(light))[0]));
  }

  /// The two halves of `encode`, for several amounts at a time.
  static Float4::Integers cells_of(const Float4& light) {
    return (light * Float4::all(static_cast<float>(kCells))).truncated();
  }
  std::uint8_t encode_in_cell(float light, std::uint32_t cell) const {
    const std::uint8_t guess = cell_floor_[cell];
    return static_cast<std::uint8_t>(guess + (light >= least_light_[guess + 1u]));
  }

  /// Whether every byte comes back unchanged, so that an unmixed sample need not pass through light at all.
  bool round_trip_is_identity() const { return round_trip_is_identity_; }

 private:
  LinearLight();

  // Two bytes' least lights are never closer than 1 / (12.92 x 255), so a cell holds at most one of them.
  static constexpr std::size_t kCells = 4096;
  std::array<float, 256> decode_;
  std::array<float, 257> least_light_;  ///< of each byte; beyond 1 behind the last
  std::array<std::uint8_t, kCells + 1> cell_floor_;
  bool round_trip_is_identity_ = true;
};

}  // namespace nvo
