#pragma once

#include <cstddef>
#include <cstdint>

#include "screen/kernels/drop_code.h"
#include "screen/kernels/screening_kernels.h"

// The screening kernels one element at a time, from element `x` on: the whole of the scalar variant and the
// ragged ends of the others. Internal linkage for the reason given in drop_code.h; no standard library
// templates either.
namespace nvo::scalar_steps {

static inline void filter_columns(const float* pixels, const ColumnTapsView& taps, float* out,
                                  std::size_t x) {
  for (; x < taps.columns; ++x) {
    const float* pixel = pixels + taps.start[x];
    float sum = 0.0f;
    for (std::size_t k = 0; k < taps.taps; ++k) sum += pixel[k] * taps.weights[k * taps.columns + x];
    sum = sum > 0.0f ? sum : 0.0f;
    out[x] = sum < kMaxMaskByte ? sum : kMaxMaskByte;
  }
}

static inline void add_scaled_row(const float* row, float weight, float* sum, std::size_t count,
                                  std::size_t x) {
  for (; x < count; ++x) sum[x] += row[x] * weight;
}

static inline void encode_row(const float* inks, std::size_t count, std::uint8_t* base,
                              std::uint8_t* threshold, std::size_t x) {
  for (; x < count; ++x) {
    const DropCode code = drop_code(inks[x]);
    base[x] = code.base;
    threshold[x] = code.threshold;
  }
}

static inline void spread_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in,
                                const std::int32_t* column, std::size_t count, std::uint8_t* base,
                                std::uint8_t* threshold, std::size_t x) {
  for (; x < count; ++x) {
    base[x] = base_in[column[x]];
    threshold[x] = threshold_in[column[x]];
  }
}

static inline void screen_row(const std::uint8_t* base, const std::uint8_t* threshold,
                              const std::uint8_t* mask, std::size_t count, std::uint8_t* dots,
                              std::size_t x) {
  for (; x < count; ++x) dots[x] = drop_level({base[x], threshold[x]}, mask[x]);
}

static inline void keep_dots(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots,
                             std::size_t x) {
  for (; x < count; ++x) {
    const auto bit = static_cast<std::uint8_t>(kept[x / 64] >> (x % 64) & 1u);
    dots[x] = static_cast<std::uint8_t>(dots[x] * bit);
  }
}

}  // namespace nvo::scalar_steps
