#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <smmintrin.h>

#include "screen/kernels/bit_row_steps.h"
#include "screen/kernels/coverage_steps.h"
#include "screen/kernels/instruction_set.h"
#include "screen/kernels/scalar_steps.h"

// The kernels in vector registers, one body for registers of every width. A file kernels_<set>.cpp says in a
// record `V` what its registers are and how they are worked with, and is compiled alone with the flags of its
// set; never with -mfma, for a fused product rounds differently. Internal linkage and no library templates:
// the linker must not hand the code of one set to another.
//
// `V` holds the types `Bytes` and `Floats` of a register, the counts `kBytes` and `kFloats` of what lies in
// one, and operations that are named after what they do to each element. `Bytes` also holds integers of 16
// and 32 bits.
namespace nvo {
namespace {

/// Filters whole groups of columns, one to an element, and returns the column behind the last. The columns of
/// a group start within the pixels that `Pick` reaches; tap k lies k pixels further, so one pick serves all
/// taps.
template <class V, class Pick>
std::size_t filter_groups(const float* pixels, const ColumnTapsView& taps, float* out) {
  std::size_t x = 0;
  for (; x + V::kFloats <= taps.columns; x += V::kFloats) {
    const Pick pick(taps.start + x);
    typename V::Floats sum = V::all_floats(0.0f);
    for (std::size_t k = 0; k < taps.taps; ++k) {
      const auto weight = V::load_floats(taps.weights + k * taps.columns + x);
      sum = V::add_floats(sum, V::multiply(pick.from(pixels + k), weight));
    }
    V::store_floats(out + x, V::clamp(sum, 0.0f, kMaxMaskByte));
  }
  return x;
}

template <class V>
void filter_columns(const float* pixels, const ColumnTapsView& taps, float* out) {
  std::size_t x = 0;
  if (taps.reach < V::NearPick::kReach) {
    x = filter_groups<V, typename V::NearPick>(pixels, taps, out);
  } else if (taps.reach < V::FarPick::kReach) {
    x = filter_groups<V, typename V::FarPick>(pixels, taps, out);
  }
  scalar_steps::filter_columns(pixels, taps, out, x);
}

template <class V>
void add_scaled_row(const float* row, float weight, float* sum, std::size_t count) {
  const auto factor = V::all_floats(weight);
  std::size_t x = 0;
  for (; x + V::kFloats <= count; x += V::kFloats) {
    const auto product = V::multiply(V::load_floats(row + x), factor);
    V::store_floats(sum + x, V::add_floats(V::load_floats(sum + x), product));
  }
  scalar_steps::add_scaled_row(row, weight, sum, count, x);
}

template <class V>
struct Codes {
  typename V::Bytes base, threshold;  ///< of 32 bits
};

/// The codes of one register of ink values, see `drop_code`.
template <class V>
Codes<V> encode(typename V::Floats inks) {
  const auto levels = V::least(V::divide(inks, V::all_floats(kInkPerLevel)), V::all_floats(kMaxLevel));
  const auto base = V::truncated(levels);
  const auto fraction = V::subtract_floats(levels, V::to_floats(base));
  const auto nearest = V::rounded(V::multiply(fraction, V::all_floats(kMaxMaskByte)));
  const auto k = V::to_floats(nearest);
  const auto edge = V::add_floats(V::multiply(k, V::all_floats(kMaskStepHigh)),
                                  V::multiply(k, V::all_floats(kMaskStepLow)));
  return {base, V::subtract_32(nearest, V::minus_one_where_above(fraction, edge))};
}

template <class V>
void encode_row(const float* inks, std::size_t count, std::uint8_t* base, std::uint8_t* threshold) {
  std::size_t x = 0;
  for (; x + V::kBytes <= count; x += V::kBytes) {
    const auto codes = [&](std::size_t i) { return encode<V>(V::load_floats(inks + x + i * V::kFloats)); };
    const Codes<V> a = codes(0), b = codes(1), c = codes(2), d = codes(3);
    V::store(base + x, V::pack_32_to_8(a.base, b.base, c.base, d.base));
    V::store(threshold + x, V::pack_32_to_8(a.threshold, b.threshold, c.threshold, d.threshold));
  }
  scalar_steps::encode_row(inks, count, base, threshold, x);
}

/// Ink of the columns that lie on pixels i and i + 1, from pixel i on.
template <class V>
typename V::Floats pair_inks(const float* inks, const PairWeights& weights, std::size_t i) {
  const auto first = V::multiply(V::load_floats(inks + i), V::load_floats(weights.left + i));
  const auto next = V::multiply(V::load_floats(inks + i + 1), V::load_floats(weights.right + i));
  return V::clamp(V::add_floats(first, next), 0.0f, kMaxMaskByte);
}

template <class V>
void encode_pairs(const float* inks, const CodeWord* codes, const PairWeights& weights, std::size_t pixels,
                  std::uint8_t* base, std::uint8_t* threshold) {
  std::size_t i = 0;
  for (; i + 2 * V::kFloats <= pixels; i += 2 * V::kFloats) {
    const Codes<V> a = encode<V>(pair_inks<V>(inks, weights, i));
    const Codes<V> b = encode<V>(pair_inks<V>(inks, weights, i + V::kFloats));
    // Pixel and pair by turns: the pixel's byte is the lower one of each two.
    const auto pixel = V::load(codes + i);
    const auto pair_base = V::template shift_left_16<8>(V::pack_32_to_16(a.base, b.base));
    const auto pair_threshold = V::template shift_left_16<8>(V::pack_32_to_16(a.threshold, b.threshold));
    V::store(base + 2 * i, V::either(V::both(pixel, V::all_16(0xff)), pair_base));
    V::store(threshold + 2 * i, V::either(V::template shift_right_16<8>(pixel), pair_threshold));
  }
  scalar_steps::encode_pairs(inks, codes, weights, pixels, base, threshold, i);
}

template <class V>
void mix_pairs(const float* inks, const PairWeights& weights, std::size_t pixels, float* out) {
  std::size_t i = 0;
  for (; i + V::kFloats <= pixels; i += V::kFloats)
    V::store_by_turns(out + 2 * i, V::load_floats(inks + i), pair_inks<V>(inks, weights, i));
  scalar_steps::mix_pairs(inks, weights, pixels, out, i);
}

inline __m128i load_sixteen(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

/// The codes at sixteen offsets below 32; 0 at `kNoCode`. A shuffle gives 0 where an index has its high bit.
inline __m128i pick_codes(const std::uint8_t* codes, __m128i below_16, __m128i from_16) {
  return _mm_or_si128(_mm_shuffle_epi8(load_sixteen(codes), below_16),
                      _mm_shuffle_epi8(load_sixteen(codes + kGatherGroup), from_16));
}

/// Groups have sixteen columns, whatever the registers hold.
inline void gather_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in,
                         const CodeGatherView& gather, std::uint8_t* base, std::uint8_t* threshold) {
  const auto store_sixteen = [](std::uint8_t* to, __m128i value) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), value);
  };
  for (std::size_t group = 0; group < gather.groups; ++group) {
    const std::size_t x = group * kGatherGroup;
    const std::int32_t first = gather.first[group];
    const __m128i offset = load_sixteen(gather.offset + x);
    const __m128i below_16 = _mm_adds_epu8(offset, _mm_set1_epi8(0x70));
    const __m128i from_16 = _mm_sub_epi8(offset, _mm_set1_epi8(kGatherGroup));
    store_sixteen(base + x, pick_codes(base_in + first, below_16, from_16));
    store_sixteen(threshold + x, pick_codes(threshold_in + first, below_16, from_16));
  }
}

/// The saturated difference is above 0 exactly where the mask is below the threshold.
template <class V>
typename V::Bytes levels_of(const std::uint8_t* base, const std::uint8_t* threshold,
                            const std::uint8_t* mask) {
  const auto above = V::subtract_saturated(V::load(threshold), V::load(mask));
  return V::add_8(V::load(base), V::least_8(above, V::all_8(1)));
}

template <class V>
void screen_row(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                std::size_t count, std::uint8_t* dots) {
  std::size_t x = 0;
  for (; x + V::kBytes <= count; x += V::kBytes)
    V::store(dots + x, levels_of<V>(base + x, threshold + x, mask + x));
  scalar_steps::screen_row(base, threshold, mask, count, dots, x);
}

template <class V>
void keep_dots(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots) {
  std::size_t x = 0;
  for (; x + 64 <= count; x += 64) {
    const std::uint64_t bits = kept[x / 64];
    if (bits == ~std::uint64_t{0}) continue;
    for (std::size_t i = 0; i < 64; i += V::kBytes)
      V::store(dots + x + i, V::both(V::load(dots + x + i), V::bytes_of_bits(bits >> i)));
  }
  scalar_steps::keep_dots(kept, count, dots, x);
}

/// A register of dots to 32-bit lanes, each with the packed byte of four dots.
template <class V>
typename V::Bytes pack_lanes(typename V::Bytes levels) {
  const auto pairs = V::multiply_add_8(levels, V::all_16(0x0104));  // first * 4 + second
  return V::multiply_add_16(pairs, V::all_32(0x00010010));          // first * 16 + second
}

/// Dots that are packed at a time: four registers of them to one of bytes.
template <class V>
constexpr std::size_t kDotsOfRound = 4 * V::kBytes;

/// A round of dots to its packed bytes. `kept` are the bits of its dots.
template <class V>
typename V::Bytes screen_round(const std::uint8_t* base, const std::uint8_t* threshold,
                               const std::uint8_t* mask, const std::uint64_t (&kept)[kDotsOfRound<V> / 64]) {
  std::uint64_t any = 0, all = ~std::uint64_t{0};
  for (const std::uint64_t word : kept) {
    any |= word;
    all &= word;
  }
  if (any == 0) return V::all_8(0);
  const auto lanes = [&](std::size_t i) {
    const auto levels = levels_of<V>(base + i, threshold + i, mask + i);
    return pack_lanes<V>(
        all == ~std::uint64_t{0} ? levels : V::both(levels, V::bytes_of_bits(kept[i / 64] >> (i % 64))));
  };
  return V::pack_32_to_8(lanes(0), lanes(V::kBytes), lanes(2 * V::kBytes), lanes(3 * V::kBytes));
}

template <class V>
void screen_packed(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                   const std::uint64_t* kept, const std::uint64_t* also_kept, std::size_t count,
                   std::uint8_t* out) {
  constexpr std::size_t kDots = kDotsOfRound<V>;
  static_assert(kDots % 64 == 0 && kScreenBlock % kDots == 0);
  for (std::size_t x = 0; x < count; x += kDots) {
    std::uint64_t bits[kDots / 64];
    for (std::size_t i = 0; i < kDots / 64; ++i) {
      const std::size_t dot = x + 64 * i;
      bits[i] = kept == nullptr ? ~std::uint64_t{0} : dot < count ? kept[dot / 64] & also_kept[dot / 64] : 0;
    }
    const auto bytes = screen_round<V>(base + x, threshold + x, mask + x, bits);
    if (count - x >= kDots) {
      V::store(out + x / 4, bytes);
    } else {
      std::uint8_t last[V::kBytes];
      V::store(last, bytes);
      std::memcpy(out + x / 4, last, (count - x + 3) / 4);
    }
  }
}

template <class V>
void add_packed(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                const std::uint64_t* kept, const std::uint64_t* not_kept, std::size_t count,
                std::uint8_t* out) {
  constexpr std::size_t kDots = kDotsOfRound<V>;
  for (std::size_t x = 0; x < count; x += kDots) {
    std::uint64_t bits[kDots / 64], any = 0;
    for (std::size_t i = 0; i < kDots / 64; ++i) {
      const std::size_t dot = x + 64 * i;
      any |= bits[i] = dot < count ? kept[dot / 64] & ~not_kept[dot / 64] : 0;
    }
    if (any == 0) continue;
    const auto bytes = screen_round<V>(base + x, threshold + x, mask + x, bits);
    if (count - x >= kDots) {
      V::store(out + x / 4, V::either(V::load(out + x / 4), bytes));
    } else {
      std::uint8_t last[V::kBytes];
      V::store(last, bytes);
      for (std::size_t i = 0; i < (count - x + 3) / 4; ++i) out[x / 4 + i] |= last[i];
    }
  }
}

template <class V>
void count_rows(const std::uint64_t* outline, const OutlineDistances& from, const OutlineDistances& to,
                std::uint8_t reach, std::size_t words) {
  for (std::size_t i = 0; i < words; ++i) {
    const bool is_far = from.life[i] == 0;
    if (is_far && outline[i] == 0) {
      to.life[i] = 0;
      continue;
    }
    to.life[i] = static_cast<std::uint8_t>(outline[i] != 0 ? reach + 1 : from.life[i] - 1);
    if (to.life[i] == 0) continue;
    for (std::size_t bit = 0; bit < 64; bit += V::kBytes) {
      const std::size_t x = i * 64 + bit;
      const auto next = is_far ? V::all_8(255) : V::add_saturated(V::load(from.rows + x), V::all_8(1));
      V::store(to.rows + x, V::without(next, V::bytes_of_bits(outline[i] >> bit)));
    }
  }
}

template <class V>
void nearest_keys(const OutlineDistances& above, const OutlineDistances& below, std::size_t words,
                  std::uint8_t* keys, std::uint8_t* live) {
  for (std::size_t i = 0; i < words; ++i) {
    const bool has_above = above.life[i] != 0, has_below = below.life[i] != 0;
    if (!has_above && !has_below && live[i] == 0) continue;
    live[i] = has_above || has_below;
    for (std::size_t x = i * 64; x < i * 64 + 64; x += V::kBytes) {
      auto key = V::all_8(255);
      if (has_above) {
        const auto rows = V::load(above.rows + x);
        key = V::add_saturated(rows, rows);
      }
      if (has_below) {
        const auto rows = V::load(below.rows + x);
        key = V::least_8(key, V::add_saturated(V::add_saturated(rows, rows), V::all_8(1)));
      }
      V::store(keys + x, key);
    }
  }
}

/// Entries of a table at `keys`, of which only the first `sixteens` x 16 are looked at; 0 for keys behind
/// them.
template <class V>
typename V::Bytes look_up(const std::uint8_t* table, std::uint8_t sixteens, typename V::Bytes keys) {
  auto found = V::all_8(0);
  for (int i = 0; i < sixteens; ++i) {
    // Keys of this sixteen lose their upper half; a shuffle gives 0 where an index has its high bit.
    const auto index = V::add_saturated(V::exclusive(keys, V::all_8(16 * i)), V::all_8(0x70));
    found = V::either(found, V::shuffle(V::load_sixteen_repeated(table + 16 * i), index));
  }
  return found;
}

/// A register of dots from dot `x` on, of which `wanted` look for an outline dot: returns those that have
/// one, and in `changed` those of them whose answer is not that of the row before.
template <class V>
std::uint64_t find_in_register(const RingMetric& metric, const RingRow& row, std::size_t x,
                               std::uint64_t wanted, std::uint64_t& changed) {
  auto best = V::all_8(0), best_key = V::all_8(0), best_column = V::all_8(0);
  for (std::uint32_t k = 0; k <= metric.columns; ++k) {
    // No dot of this column or one further away is nearer than the one right beside. Asked of every second
    // column only, as the processor can't foresee the answer.
    if (k >= 3 && k % 2 == 1) {
      const auto highest = V::all_8(metric.nearness[k][0]);
      if ((wanted & ~V::bits_where_equal(V::greatest_8(best, highest), best)) == 0) break;
    }
    const auto left = V::load(row.keys + x - k), right = V::load(row.keys + x + k);
    const auto key = V::least_8(left, right);
    const auto nearness = look_up<V>(metric.nearness[k], metric.sixteens[k], key);
    const auto stays = V::equal_8(V::greatest_8(nearness, best), best);
    const auto column =
        V::select(V::all_8(static_cast<int>(k)), V::all_8(-static_cast<int>(k)), V::equal_8(key, left));
    best = V::greatest_8(nearness, best);
    best_key = V::select(key, best_key, stays);
    best_column = V::select(column, best_column, stays);
  }
  const auto code_row = look_up<V>(row.code_row_of_key, RingMetric::kKeys / 16, best_key);
  const std::uint64_t found = wanted & ~V::bits_where_equal(best, V::all_8(0));
  changed =
      found & ~(row.held[x / 64] >> (x % 64) & V::bits_where_equal(V::load(row.column + x), best_column) &
                V::bits_where_equal(V::load(row.code_row + x), code_row));
  V::store(row.column + x, best_column);
  V::store(row.key + x, best_key);
  V::store(row.code_row + x, code_row);
  return found;
}

template <class V>
void find_nearest(const RingMetric& metric, const RingRow& row, std::size_t words) {
  constexpr std::uint64_t kAll = ~std::uint64_t{0} >> (64 - V::kBytes);
  for (std::size_t i = 0; i < words; ++i) {
    row.found[i] = row.changed[i] = 0;
    if (row.wanted[i] == 0) continue;
    for (std::size_t bit = 0; bit < 64; bit += V::kBytes) {
      const std::uint64_t wanted = row.wanted[i] >> bit & kAll;
      if (wanted == 0) continue;
      std::uint64_t changed = 0;
      row.found[i] |= find_in_register<V>(metric, row, i * 64 + bit, wanted, changed) << bit;
      row.changed[i] |= changed << bit;
    }
  }
}

template <class V>
void bits_at_least(const std::uint8_t* bytes, std::uint8_t least, std::size_t count, std::uint64_t* words) {
  const auto limit = V::all_8(least);
  std::size_t x = 0;
  for (; x + 64 <= count; x += 64) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < 64; i += V::kBytes) {
      const auto value = V::load(bytes + x + i);
      word |= V::bits_where_equal(V::greatest_8(value, limit), value) << i;
    }
    words[x / 64] = word;
  }
  scalar_steps::bits_at_least(bytes, least, count, words, x);
}

template <class V>
void pack_row(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  constexpr auto kDots = static_cast<std::uint32_t>(kDotsOfRound<V>);
  std::uint32_t x = 0;
  for (; width - x >= kDots; x += kDots) {
    const auto lanes = [&](std::size_t i) {
      return pack_lanes<V>(V::both(V::load(dots + x + i * V::kBytes), V::all_8(3)));
    };
    V::store(out + x / 4, V::pack_32_to_8(lanes(0), lanes(1), lanes(2), lanes(3)));
  }
  scalar_steps::pack_row(dots, width, out, x);
}

template <class V>
constexpr InstructionSet simd_instruction_set(const char* name) {
  return {name,
          {filter_columns<V>, add_scaled_row<V>, encode_row<V>, encode_pairs<V>, mix_pairs<V>, gather_codes,
           screen_row<V>, keep_dots<V>, screen_packed<V>, add_packed<V>, bits_at_least<V>},
          bit_row_steps::kKernels,
          {count_rows<V>, nearest_keys<V>, find_nearest<V>},
          coverage_steps::kKernels,
          {pack_row<V>}};
}

}  // namespace
}  // namespace nvo
