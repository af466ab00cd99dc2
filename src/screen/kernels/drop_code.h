#pragma once

#include <cstdint>

namespace nvo {

/// An ink value as the screen needs it: a dot's level is `base`, plus one where its mask byte is below
/// `threshold`.
struct DropCode {
  std::uint8_t base = 0;       ///< 0..3
  std::uint8_t threshold = 0;  ///< 0..255; 0 where the base is 3
};

inline constexpr float kInkPerLevel = 85.0f;
inline constexpr float kMaxLevel = 3.0f;
inline constexpr float kMaxMaskByte = 255.0f;

/// k * kMaskStepHigh + k * kMaskStepLow is k / 255.0f to the last bit for every byte k, without a division: 1
/// / 255 is 2^-8 + 2^-16 + 2^-24 + ..., the first product is exact, and what the second leaves out is far
/// below the distance of any k / 255 from the middle between two floats.
inline constexpr float kMaskStepHigh = 0x1.01p-8f;
inline constexpr float kMaskStepLow = 0x1.0101p-24f;

// The functions below have internal linkage: files compiled for different instruction sets include them, and
// a copy shared by the linker could hold instructions that the machine does not have.

/// The code of an ink value (0..255, a rounding above is a full ink). A dot is promoted where
/// ink / 85 - base > mask / 255, so the threshold is the number of mask bytes for which that holds. With k
/// the integer nearest to 255 times the fraction, f32 rounding leaves only the byte k in doubt.
static inline DropCode drop_code(float ink) {
  float levels = ink / kInkPerLevel;
  levels = levels < kMaxLevel ? levels : kMaxLevel;
  const auto base = static_cast<std::int32_t>(levels);
  const float fraction = levels - static_cast<float>(base);
  const auto nearest = static_cast<std::int32_t>(fraction * kMaxMaskByte + 0.5f);
  const bool passes_nearest = fraction > static_cast<float>(nearest) / kMaxMaskByte;
  return {static_cast<std::uint8_t>(base), static_cast<std::uint8_t>(nearest + (passes_nearest ? 1 : 0))};
}

static inline std::uint8_t drop_level(DropCode code, std::uint8_t mask) {
  return static_cast<std::uint8_t>(code.base + (mask < code.threshold ? 1 : 0));
}

}  // namespace nvo
