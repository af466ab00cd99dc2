// Compiled alone with -mavx2, and without -mfma: a fused product would round differently.
#include <cstring>

#include <immintrin.h>

#include "screen/kernels/scalar_steps.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {
namespace {

constexpr std::size_t kBytes = 32;  ///< of a register
constexpr std::size_t kFloats = 8;

__m256i load(const void* from) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}
__m128i load_half(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
void store(void* to, __m256i value) {
  _mm256_storeu_si256(static_cast<__m256i*>(to), value);
}
void store_half(void* to, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

/// Pixel `pick` (0..7) of the eight from `from` on.
__m256 pick_of_8(const float* from, __m256i pick) {
  return _mm256_permutevar8x32_ps(_mm256_loadu_ps(from), pick);
}

/// Pixel `pick` (0..15) of the sixteen from `from` on.
__m256 pick_of_16(const float* from, __m256i pick) {
  const __m256 upper = _mm256_castsi256_ps(_mm256_cmpgt_epi32(pick, _mm256_set1_epi32(7)));
  return _mm256_blendv_ps(pick_of_8(from, pick), pick_of_8(from + 8, pick), upper);
}

/// Filters whole groups of eight columns and returns the column behind the last. The columns of a group start
/// within the pixels that `pick_pixels` reaches; tap k lies k pixels further, so one index vector serves all
/// taps.
template <__m256 (*pick_pixels)(const float*, __m256i)>
std::size_t filter_groups(const float* pixels, const ColumnTapsView& taps, float* out) {
  std::size_t x = 0;
  for (; x + kFloats <= taps.columns; x += kFloats) {
    const std::int32_t first = taps.start[x];
    const __m256i pick = _mm256_sub_epi32(load(taps.start + x), _mm256_set1_epi32(first));
    __m256 sum = _mm256_setzero_ps();
    for (std::size_t k = 0; k < taps.taps; ++k) {
      const __m256 weight = _mm256_loadu_ps(taps.weights + k * taps.columns + x);
      sum = _mm256_add_ps(sum, _mm256_mul_ps(pick_pixels(pixels + first + k, pick), weight));
    }
    sum = _mm256_min_ps(_mm256_max_ps(sum, _mm256_setzero_ps()), _mm256_set1_ps(kMaxMaskByte));
    _mm256_storeu_ps(out + x, sum);
  }
  return x;
}

void filter_columns(const float* pixels, const ColumnTapsView& taps, float* out) {
  std::size_t x = 0;
  if (taps.reach < 8) {
    x = filter_groups<pick_of_8>(pixels, taps, out);
  } else if (taps.reach < 16) {
    x = filter_groups<pick_of_16>(pixels, taps, out);
  }
  scalar_steps::filter_columns(pixels, taps, out, x);
}

void add_scaled_row(const float* row, float weight, float* sum, std::size_t count) {
  const __m256 factor = _mm256_set1_ps(weight);
  std::size_t x = 0;
  for (; x + kFloats <= count; x += kFloats) {
    const __m256 product = _mm256_mul_ps(_mm256_loadu_ps(row + x), factor);
    _mm256_storeu_ps(sum + x, _mm256_add_ps(_mm256_loadu_ps(sum + x), product));
  }
  scalar_steps::add_scaled_row(row, weight, sum, count, x);
}

struct Codes {
  __m256i base, threshold;  ///< eight of 32 bits
};

Codes encode_eight(__m256 inks) {
  const __m256 levels =
      _mm256_min_ps(_mm256_div_ps(inks, _mm256_set1_ps(kInkPerLevel)), _mm256_set1_ps(kMaxLevel));
  const __m256i base = _mm256_cvttps_epi32(levels);
  const __m256 fraction = _mm256_sub_ps(levels, _mm256_cvtepi32_ps(base));
  const __m256i nearest = _mm256_cvtps_epi32(_mm256_mul_ps(fraction, _mm256_set1_ps(kMaxMaskByte)));
  const __m256 k = _mm256_cvtepi32_ps(nearest);
  const __m256 edge = _mm256_add_ps(_mm256_mul_ps(k, _mm256_set1_ps(kMaskStepHigh)),
                                    _mm256_mul_ps(k, _mm256_set1_ps(kMaskStepLow)));
  const __m256i passes = _mm256_castps_si256(_mm256_cmp_ps(fraction, edge, _CMP_GT_OQ));  // -1 where true
  return {base, _mm256_sub_epi32(nearest, passes)};
}

/// 32 bytes from four registers of eight values. The packs work within halves, the permutation restores the
/// order.
__m256i pack_bytes(__m256i a, __m256i b, __m256i c, __m256i d) {
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
  return _mm256_permutevar8x32_epi32(bytes, order);
}

void encode_row(const float* inks, std::size_t count, std::uint8_t* base, std::uint8_t* threshold) {
  std::size_t x = 0;
  for (; x + kBytes <= count; x += kBytes) {
    const Codes a = encode_eight(_mm256_loadu_ps(inks + x)), b = encode_eight(_mm256_loadu_ps(inks + x + 8));
    const Codes c = encode_eight(_mm256_loadu_ps(inks + x + 16)),
                d = encode_eight(_mm256_loadu_ps(inks + x + 24));
    store(base + x, pack_bytes(a.base, b.base, c.base, d.base));
    store(threshold + x, pack_bytes(a.threshold, b.threshold, c.threshold, d.threshold));
  }
  scalar_steps::encode_row(inks, count, base, threshold, x);
}

/// Ink of the eight columns that lie on pixels i and i + 1.
__m256 pair_inks(const float* inks, const PairWeights& weights, std::size_t i) {
  const __m256 first = _mm256_mul_ps(_mm256_loadu_ps(inks + i), _mm256_loadu_ps(weights.left + i));
  const __m256 next = _mm256_mul_ps(_mm256_loadu_ps(inks + i + 1), _mm256_loadu_ps(weights.right + i));
  const __m256 sum = _mm256_add_ps(first, next);
  return _mm256_min_ps(_mm256_max_ps(sum, _mm256_setzero_ps()), _mm256_set1_ps(kMaxMaskByte));
}

/// Sixteen values of sixteen bits from two registers of eight.
__m256i pack_halves(__m256i a, __m256i b) {
  return _mm256_permute4x64_epi64(_mm256_packus_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0));
}

void encode_pairs(const float* inks, const CodeWord* codes, const PairWeights& weights, std::size_t pixels,
                  std::uint8_t* base, std::uint8_t* threshold) {
  std::size_t i = 0;
  for (; i + 2 * kFloats <= pixels; i += 2 * kFloats) {
    const Codes a = encode_eight(pair_inks(inks, weights, i));
    const Codes b = encode_eight(pair_inks(inks, weights, i + kFloats));
    // Pixel and pair by turns: the pixel's byte is the lower one of each two.
    const __m256i pixel = load(codes + i);
    const __m256i pair_base = _mm256_slli_epi16(pack_halves(a.base, b.base), 8);
    const __m256i pair_threshold = _mm256_slli_epi16(pack_halves(a.threshold, b.threshold), 8);
    store(base + 2 * i, _mm256_or_si256(_mm256_and_si256(pixel, _mm256_set1_epi16(0xff)), pair_base));
    store(threshold + 2 * i, _mm256_or_si256(_mm256_srli_epi16(pixel, 8), pair_threshold));
  }
  scalar_steps::encode_pairs(inks, codes, weights, pixels, base, threshold, i);
}

void mix_pairs(const float* inks, const PairWeights& weights, std::size_t pixels, float* out) {
  std::size_t i = 0;
  for (; i + kFloats <= pixels; i += kFloats) {
    const __m256 pixel = _mm256_loadu_ps(inks + i), pair = pair_inks(inks, weights, i);
    const __m256 low = _mm256_unpacklo_ps(pixel, pair), high = _mm256_unpackhi_ps(pixel, pair);
    _mm256_storeu_ps(out + 2 * i, _mm256_permute2f128_ps(low, high, 0x20));
    _mm256_storeu_ps(out + 2 * i + kFloats, _mm256_permute2f128_ps(low, high, 0x31));
  }
  scalar_steps::mix_pairs(inks, weights, pixels, out, i);
}

/// The codes at sixteen offsets below 32; 0 at `kNoCode`. A shuffle gives 0 where an index has its high bit.
__m128i pick_codes(const std::uint8_t* codes, __m128i below_16, __m128i from_16) {
  return _mm_or_si128(_mm_shuffle_epi8(load_half(codes), below_16),
                      _mm_shuffle_epi8(load_half(codes + kSpreadGroup), from_16));
}

void spread_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in, const CodeSpreadView& spread,
                  std::uint8_t* base, std::uint8_t* threshold) {
  for (std::size_t group = 0; group < spread.groups; ++group) {
    const std::size_t x = group * kSpreadGroup;
    const std::int32_t first = spread.first[group];
    const __m128i offset = load_half(spread.offset + x);
    const __m128i below_16 = _mm_adds_epu8(offset, _mm_set1_epi8(0x70));
    const __m128i from_16 = _mm_sub_epi8(offset, _mm_set1_epi8(kSpreadGroup));
    store_half(base + x, pick_codes(base_in + first, below_16, from_16));
    store_half(threshold + x, pick_codes(threshold_in + first, below_16, from_16));
  }
}

void screen_row(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                std::size_t count, std::uint8_t* dots) {
  const __m256i one = _mm256_set1_epi8(1);
  std::size_t x = 0;
  for (; x + kBytes <= count; x += kBytes) {
    // The saturated difference is above 0 exactly where the mask is below the threshold.
    const __m256i above = _mm256_subs_epu8(load(threshold + x), load(mask + x));
    store(dots + x, _mm256_add_epi8(load(base + x), _mm256_min_epu8(above, one)));
  }
  scalar_steps::screen_row(base, threshold, mask, count, dots, x);
}

/// 0xff for each of the low 32 bits that is set.
__m256i bytes_of_bits(std::uint64_t bits) {
  const __m256i byte_of_dot = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1,  //
                                               2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
  const __m256i bit_of_dot = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201u));
  const __m256i spread =
      _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(bits & 0xffffffffu)), byte_of_dot);
  return _mm256_cmpeq_epi8(_mm256_and_si256(spread, bit_of_dot), bit_of_dot);
}

void keep_dots(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots) {
  std::size_t x = 0;
  for (; x + 64 <= count; x += 64) {
    const std::uint64_t bits = kept[x / 64];
    if (bits == ~std::uint64_t{0}) continue;
    for (std::size_t i = 0; i < 64; i += kBytes)
      store(dots + x + i, _mm256_and_si256(load(dots + x + i), bytes_of_bits(bits >> i)));
  }
  scalar_steps::keep_dots(kept, count, dots, x);
}

__m256i levels_of(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask) {
  const __m256i above = _mm256_subs_epu8(load(threshold), load(mask));
  return _mm256_add_epi8(load(base), _mm256_min_epu8(above, _mm256_set1_epi8(1)));
}

/// 32 dots to eight 32-bit lanes, each with the packed byte of four dots.
__m256i pack_lanes(__m256i levels) {
  const __m256i pairs = _mm256_maddubs_epi16(levels, _mm256_set1_epi16(0x0104));  // first * 4 + second
  return _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00010010));                 // first * 16 + second
}

/// A block of dots to its 32 packed bytes. `kept` are the bits of the first 64 dots and of the rest.
__m256i screen_block(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                     const std::uint64_t (&kept)[2]) {
  if ((kept[0] | kept[1]) == 0) return _mm256_setzero_si256();
  const bool all = (kept[0] & kept[1]) == ~std::uint64_t{0};
  const auto lanes = [&](std::size_t i) {
    const __m256i levels = levels_of(base + i, threshold + i, mask + i);
    return pack_lanes(all ? levels : _mm256_and_si256(levels, bytes_of_bits(kept[i / 64] >> (i % 64))));
  };
  return pack_bytes(lanes(0), lanes(32), lanes(64), lanes(96));
}

void screen_packed(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                   const std::uint64_t* kept, const std::uint64_t* also_kept, std::size_t count,
                   std::uint8_t* out) {
  const auto kept_word = [&](std::size_t x) {
    return kept == nullptr ? ~std::uint64_t{0} : x < count ? kept[x / 64] & also_kept[x / 64] : 0;
  };
  for (std::size_t x = 0; x < count; x += kScreenBlock) {
    const std::uint64_t bits[2] = {kept_word(x), kept_word(x + 64)};
    const __m256i bytes = screen_block(base + x, threshold + x, mask + x, bits);
    if (count - x >= kScreenBlock) {
      store(out + x / 4, bytes);
    } else {
      std::uint8_t last[kBytes];
      store(last, bytes);
      std::memcpy(out + x / 4, last, (count - x + 3) / 4);
    }
  }
}

void bits_at_least(const std::uint8_t* bytes, std::uint8_t least, std::size_t count, std::uint64_t* words) {
  const __m256i limit = _mm256_set1_epi8(static_cast<char>(least));
  const auto bits = [&](const std::uint8_t* from) {
    const __m256i value = load(from);
    const int mask = _mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_max_epu8(value, limit), value));
    return std::uint64_t{static_cast<std::uint32_t>(mask)};
  };
  std::size_t x = 0;
  for (; x + 64 <= count; x += 64) words[x / 64] = bits(bytes + x) | bits(bytes + x + kBytes) << 32;
  scalar_steps::bits_at_least(bytes, least, count, words, x);
}

}  // namespace

const ScreeningKernels kAvx2Kernels = {
    InstructionSet::avx2, filter_columns, add_scaled_row, encode_row,    encode_pairs, mix_pairs,
    spread_codes,         screen_row,     keep_dots,      screen_packed, bits_at_least};

}  // namespace nvo
