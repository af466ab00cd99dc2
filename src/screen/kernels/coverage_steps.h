#pragma once

#include <cstddef>
#include <cstdint>

#include "screen/kernels/coverage_kernels.h"

// The loops over pixels behind coverage_kernels.h, for the compiler as those of bit_row_steps.h. Internal
// linkage and no library templates: files compiled for different instruction sets include them, and a copy
// shared by the linker could hold instructions that the machine does not have.
namespace nvo::coverage_steps {

inline constexpr float kByteToUnit = 0.003921569f;  // 1 / 255

static inline float printed_luminance(std::uint8_t cyan, std::uint8_t magenta, std::uint8_t yellow,
                                      std::uint8_t black) {
  const float c = 1.0f - static_cast<float>(cyan) * kByteToUnit;
  const float m = 1.0f - static_cast<float>(magenta) * kByteToUnit;
  const float y = 1.0f - static_cast<float>(yellow) * kByteToUnit;
  const float k = 1.0f - static_cast<float>(black) * kByteToUnit;
  return c * k * 0.2126f + m * k * 0.7152f + y * k * 0.0722f;
}

static inline void largest(const std::uint8_t* __restrict c, const std::uint8_t* __restrict m,
                           const std::uint8_t* __restrict y, const std::uint8_t* __restrict k,
                           std::size_t count, std::uint8_t* __restrict out) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t cm = c[i] > m[i] ? c[i] : m[i], yk = y[i] > k[i] ? y[i] : k[i];
    out[i] = cm > yk ? cm : yk;
  }
}

static inline void at_least(const std::uint8_t* __restrict c, const std::uint8_t* __restrict m,
                            const std::uint8_t* __restrict y, const std::uint8_t* __restrict k,
                            std::size_t count, float least_luminance, std::uint8_t* __restrict out) {
  for (std::size_t i = 0; i < count; ++i)
    out[i] = printed_luminance(c[i], m[i], y[i], k[i]) >= least_luminance ? 255 : 0;
}

static constexpr CoverageKernels kKernels = {largest, at_least};

}  // namespace nvo::coverage_steps
