#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "screen/kernels/drop_code.h"
#include "screen/kernels/ring_kernels.h"
#include "screen/kernels/screening_kernels.h"

// The kernels of screening and packing one element at a time: the whole of the scalar set and, from element
// `x` on, the ragged ends of the others. Parameters are those of the kernels, one to seven of them as
// screening_kernels.h has it, and `x`. Internal linkage for the reason given in drop_code.h; no standard
// library templates either.
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

static inline float pair_ink(const float* pixel, float left, float right) {
  float sum = pixel[0] * left;
  sum += pixel[1] * right;
  sum = sum > 0.0f ? sum : 0.0f;
  return sum < kMaxMaskByte ? sum : kMaxMaskByte;
}

static inline void encode_pairs(const float* inks, const CodeWord* codes, const PairWeights& weights,
                                std::size_t pixels, std::uint8_t* base, std::uint8_t* threshold,
                                std::size_t i) {
  for (; i < pixels; ++i) {
    const DropCode pair = drop_code(pair_ink(inks + i, weights.left[i], weights.right[i]));
    base[2 * i] = static_cast<std::uint8_t>(codes[i]);
    threshold[2 * i] = static_cast<std::uint8_t>(codes[i] >> 8);
    base[2 * i + 1] = pair.base;
    threshold[2 * i + 1] = pair.threshold;
  }
}

static inline void mix_pairs(const float* inks, const PairWeights& weights, std::size_t pixels, float* out,
                             std::size_t i) {
  for (; i < pixels; ++i) {
    out[2 * i] = inks[i];
    out[2 * i + 1] = pair_ink(inks + i, weights.left[i], weights.right[i]);
  }
}

static inline void gather_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in,
                                const CodeGatherView& gather, std::uint8_t* base, std::uint8_t* threshold) {
  for (std::size_t x = 0; x < gather.groups * kGatherGroup; ++x) {
    const std::int32_t first = gather.first[x / kGatherGroup];
    const std::uint8_t offset = gather.offset[x];
    base[x] = offset == kNoCode ? 0 : base_in[first + offset];
    threshold[x] = offset == kNoCode ? 0 : threshold_in[first + offset];
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

static inline void screen_packed(const std::uint8_t* base, const std::uint8_t* threshold,
                                 const std::uint8_t* mask, const std::uint64_t* kept,
                                 const std::uint64_t* also_kept, std::size_t count, std::uint8_t* out) {
  for (std::size_t x = 0; x < count; x += 4) {
    unsigned four = 0;
    for (std::size_t i = x; i < x + 4; ++i) {
      unsigned level = i < count ? drop_level({base[i], threshold[i]}, mask[i]) : 0u;
      if (kept != nullptr && i < count && !((kept[i / 64] & also_kept[i / 64]) >> (i % 64) & 1u)) level = 0;
      four = four << 2 | level;
    }
    out[x / 4] = static_cast<std::uint8_t>(four);
  }
}

static inline void add_packed(const std::uint8_t* base, const std::uint8_t* threshold,
                              const std::uint8_t* mask, const std::uint64_t* kept,
                              const std::uint64_t* not_kept, std::size_t count, std::uint8_t* out) {
  for (std::size_t x = 0; x < count; ++x) {
    if (!((kept[x / 64] & ~not_kept[x / 64]) >> (x % 64) & 1u)) continue;
    const unsigned level = drop_level({base[x], threshold[x]}, mask[x]);
    out[x / 4] = static_cast<std::uint8_t>(out[x / 4] | level << (6 - 2 * (x % 4)));
  }
}

static inline void count_rows(const std::uint64_t* outline, const OutlineDistances& from,
                              const OutlineDistances& to, std::uint8_t reach, std::size_t words) {
  for (std::size_t i = 0; i < words; ++i) {
    const bool is_far = from.life[i] == 0;
    to.life[i] = static_cast<std::uint8_t>(outline[i] != 0 ? reach + 1 : is_far ? 0 : from.life[i] - 1);
    if (to.life[i] == 0) continue;
    for (std::size_t x = i * 64; x < i * 64 + 64; ++x) {
      const unsigned next = is_far || from.rows[x] == 255 ? 255u : from.rows[x] + 1u;
      to.rows[x] = static_cast<std::uint8_t>(outline[i] >> (x % 64) & 1u ? 0u : next);
    }
  }
}

static inline void nearest_keys(const OutlineDistances& above, const OutlineDistances& below,
                                std::size_t words, std::uint8_t* keys, std::uint8_t* live) {
  for (std::size_t i = 0; i < words; ++i) {
    const bool has_above = above.life[i] != 0, has_below = below.life[i] != 0;
    const bool stays_far = !has_above && !has_below && live[i] == 0;
    live[i] = has_above || has_below;
    for (std::size_t x = i * 64; !stays_far && x < i * 64 + 64; ++x) {
      const unsigned up = has_above ? 2u * above.rows[x] : 255u;
      const unsigned down = has_below ? 2u * below.rows[x] + 1u : 255u;
      const unsigned key = up < down ? up : down;
      keys[x] = static_cast<std::uint8_t>(key < 255u ? key : 255u);
    }
  }
}

static inline void find_nearest(const RingMetric& metric, const RingRow& row, std::size_t words) {
  for (std::size_t i = 0; i < words; ++i) {
    row.found[i] = row.changed[i] = 0;
    for (std::size_t bit = 0; bit < 64; ++bit) {
      if (!(row.wanted[i] >> bit & 1u)) continue;
      const std::size_t x = i * 64 + bit;
      std::uint8_t best = 0, best_key = 0;
      int best_column = 0;
      for (std::uint32_t k = 0; k <= metric.columns; ++k) {
        const std::uint8_t left = (row.keys + x)[-static_cast<std::ptrdiff_t>(k)], right = row.keys[x + k];
        const std::uint8_t key = left < right ? left : right;
        const std::uint8_t nearness = key < RingMetric::kKeys ? metric.nearness[k][key] : std::uint8_t{0};
        if (nearness <= best) continue;
        best = nearness;
        best_key = key;
        best_column = key == left ? -static_cast<int>(k) : static_cast<int>(k);
      }
      if (best == 0) continue;
      const std::uint8_t code_row = row.code_row_of_key[best_key];
      const bool same =
          (row.held[i] >> bit & 1u) && row.column[x] == best_column && row.code_row[x] == code_row;
      row.found[i] |= std::uint64_t{1} << bit;
      row.changed[i] |= std::uint64_t{!same} << bit;
      row.column[x] = static_cast<std::int8_t>(best_column);
      row.key[x] = best_key;
      row.code_row[x] = code_row;
    }
  }
}

/// From byte `x` on, the first of a word.
static inline void bits_at_least(const std::uint8_t* bytes, std::uint8_t least, std::size_t count,
                                 std::uint64_t* words, std::size_t x) {
  for (; x < count; x += 64) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < 64 && x + i < count; ++i)
      word |= static_cast<std::uint64_t>(bytes[x + i] >= least) << i;
    words[x / 64] = word;
  }
}

static inline void pack_eight(const std::uint8_t* dots, std::uint8_t* out) {
  constexpr std::uint64_t kLevelBits = 0x0303030303030303;
  // Moves the dot in byte k of each half up by 30 - 10 k bits: the top byte of the half then holds all four,
  // the first in the highest bits. No two of the shifted copies overlap, so nothing carries.
  constexpr std::uint64_t kGatherFour = std::uint64_t{1} << 30 | 1u << 20 | 1u << 10 | 1u;
  std::uint64_t levels;
  std::memcpy(&levels, dots, sizeof levels);
  if constexpr (std::endian::native == std::endian::big) levels = __builtin_bswap64(levels);
  levels = (levels & kLevelBits) * kGatherFour;
  out[0] = static_cast<std::uint8_t>(levels >> 24);
  out[1] = static_cast<std::uint8_t>(levels >> 56);
}

/// From dot `x` on, a multiple of four.
static inline void pack_row(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out,
                            std::uint32_t x) {
  for (; width - x >= 8; x += 8) pack_eight(dots + x, out + x / 4);
  if (x == width) return;
  std::uint8_t last_dots[8] = {};
  std::uint8_t last_bytes[2];
  std::memcpy(last_dots, dots + x, width - x);
  pack_eight(last_dots, last_bytes);
  std::memcpy(out + x / 4, last_bytes, (width - x + 3) / 4);
}

}  // namespace nvo::scalar_steps
