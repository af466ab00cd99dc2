// Compiled alone with -msse4.1.
#include <cstring>

#include <smmintrin.h>

#include "screen/kernels/scalar_steps.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {
namespace {

constexpr std::size_t kBytes = 16;  ///< of a register
constexpr std::size_t kFloats = 4;

__m128i load(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
void store(void* to, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

void filter_columns(const float* pixels, const ColumnTapsView& taps, float* out) {
  std::size_t x = 0;
  for (; x + kFloats <= taps.columns; x += kFloats) {
    const std::int32_t* start = taps.start + x;
    __m128 sum = _mm_setzero_ps();
    for (std::size_t k = 0; k < taps.taps; ++k) {
      const float* pixel = pixels + k;
      const __m128 inks = _mm_setr_ps(pixel[start[0]], pixel[start[1]], pixel[start[2]], pixel[start[3]]);
      sum = _mm_add_ps(sum, _mm_mul_ps(inks, _mm_loadu_ps(taps.weights + k * taps.columns + x)));
    }
    sum = _mm_min_ps(_mm_max_ps(sum, _mm_setzero_ps()), _mm_set1_ps(kMaxMaskByte));
    _mm_storeu_ps(out + x, sum);
  }
  scalar_steps::filter_columns(pixels, taps, out, x);
}

void add_scaled_row(const float* row, float weight, float* sum, std::size_t count) {
  const __m128 factor = _mm_set1_ps(weight);
  std::size_t x = 0;
  for (; x + kFloats <= count; x += kFloats)
    _mm_storeu_ps(sum + x, _mm_add_ps(_mm_loadu_ps(sum + x), _mm_mul_ps(_mm_loadu_ps(row + x), factor)));
  scalar_steps::add_scaled_row(row, weight, sum, count, x);
}

struct Codes {
  __m128i base, threshold;  ///< four or sixteen, by context
};

Codes encode_four(__m128 inks) {
  const __m128 levels = _mm_min_ps(_mm_div_ps(inks, _mm_set1_ps(kInkPerLevel)), _mm_set1_ps(kMaxLevel));
  const __m128i base = _mm_cvttps_epi32(levels);
  const __m128 fraction = _mm_sub_ps(levels, _mm_cvtepi32_ps(base));
  const __m128i nearest = _mm_cvtps_epi32(_mm_mul_ps(fraction, _mm_set1_ps(kMaxMaskByte)));
  const __m128 k = _mm_cvtepi32_ps(nearest);
  const __m128 edge =
      _mm_add_ps(_mm_mul_ps(k, _mm_set1_ps(kMaskStepHigh)), _mm_mul_ps(k, _mm_set1_ps(kMaskStepLow)));
  const __m128i passes = _mm_castps_si128(_mm_cmpgt_ps(fraction, edge));  // -1 where true
  return {base, _mm_sub_epi32(nearest, passes)};
}

void encode_row(const float* inks, std::size_t count, std::uint8_t* base, std::uint8_t* threshold) {
  std::size_t x = 0;
  for (; x + kBytes <= count; x += kBytes) {
    const Codes a = encode_four(_mm_loadu_ps(inks + x)), b = encode_four(_mm_loadu_ps(inks + x + 4));
    const Codes c = encode_four(_mm_loadu_ps(inks + x + 8)), d = encode_four(_mm_loadu_ps(inks + x + 12));
    store(base + x, _mm_packus_epi16(_mm_packs_epi32(a.base, b.base), _mm_packs_epi32(c.base, d.base)));
    store(threshold + x, _mm_packus_epi16(_mm_packs_epi32(a.threshold, b.threshold),
                                          _mm_packs_epi32(c.threshold, d.threshold)));
  }
  scalar_steps::encode_row(inks, count, base, threshold, x);
}

/// Ink of the four columns that lie on pixels i and i + 1.
__m128 pair_inks(const float* inks, const PairWeights& weights, std::size_t i) {
  const __m128 first = _mm_mul_ps(_mm_loadu_ps(inks + i), _mm_loadu_ps(weights.left + i));
  const __m128 next = _mm_mul_ps(_mm_loadu_ps(inks + i + 1), _mm_loadu_ps(weights.right + i));
  return _mm_min_ps(_mm_max_ps(_mm_add_ps(first, next), _mm_setzero_ps()), _mm_set1_ps(kMaxMaskByte));
}

void encode_pairs(const float* inks, const CodeWord* codes, const PairWeights& weights, std::size_t pixels,
                  std::uint8_t* base, std::uint8_t* threshold) {
  std::size_t i = 0;
  for (; i + 2 * kFloats <= pixels; i += 2 * kFloats) {
    const Codes a = encode_four(pair_inks(inks, weights, i));
    const Codes b = encode_four(pair_inks(inks, weights, i + kFloats));
    // Pixel and pair by turns: the pixel's byte is the lower one of each two.
    const __m128i pixel = load(codes + i);
    const __m128i pair_base = _mm_slli_epi16(_mm_packus_epi32(a.base, b.base), 8);
    const __m128i pair_threshold = _mm_slli_epi16(_mm_packus_epi32(a.threshold, b.threshold), 8);
    store(base + 2 * i, _mm_or_si128(_mm_and_si128(pixel, _mm_set1_epi16(0xff)), pair_base));
    store(threshold + 2 * i, _mm_or_si128(_mm_srli_epi16(pixel, 8), pair_threshold));
  }
  scalar_steps::encode_pairs(inks, codes, weights, pixels, base, threshold, i);
}

void mix_pairs(const float* inks, const PairWeights& weights, std::size_t pixels, float* out) {
  std::size_t i = 0;
  for (; i + kFloats <= pixels; i += kFloats) {
    const __m128 pixel = _mm_loadu_ps(inks + i), pair = pair_inks(inks, weights, i);
    _mm_storeu_ps(out + 2 * i, _mm_unpacklo_ps(pixel, pair));
    _mm_storeu_ps(out + 2 * i + kFloats, _mm_unpackhi_ps(pixel, pair));
  }
  scalar_steps::mix_pairs(inks, weights, pixels, out, i);
}

/// The codes at sixteen offsets below 32; 0 at `kNoCode`. A shuffle gives 0 where an index has its high bit.
__m128i pick_codes(const std::uint8_t* codes, __m128i below_16, __m128i from_16) {
  return _mm_or_si128(_mm_shuffle_epi8(load(codes), below_16),
                      _mm_shuffle_epi8(load(codes + kSpreadGroup), from_16));
}

void spread_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in, const CodeSpreadView& spread,
                  std::uint8_t* base, std::uint8_t* threshold) {
  for (std::size_t group = 0; group < spread.groups; ++group) {
    const std::size_t x = group * kSpreadGroup;
    const std::int32_t first = spread.first[group];
    const __m128i offset = load(spread.offset + x);
    const __m128i below_16 = _mm_adds_epu8(offset, _mm_set1_epi8(0x70));
    const __m128i from_16 = _mm_sub_epi8(offset, _mm_set1_epi8(kSpreadGroup));
    store(base + x, pick_codes(base_in + first, below_16, from_16));
    store(threshold + x, pick_codes(threshold_in + first, below_16, from_16));
  }
}

void screen_row(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                std::size_t count, std::uint8_t* dots) {
  const __m128i one = _mm_set1_epi8(1);
  std::size_t x = 0;
  for (; x + kBytes <= count; x += kBytes) {
    // The saturated difference is above 0 exactly where the mask is below the threshold.
    const __m128i above = _mm_subs_epu8(load(threshold + x), load(mask + x));
    store(dots + x, _mm_add_epi8(load(base + x), _mm_min_epu8(above, one)));
  }
  scalar_steps::screen_row(base, threshold, mask, count, dots, x);
}

/// 0xff for each of the low 16 bits that is set.
__m128i bytes_of_bits(std::uint64_t bits) {
  const __m128i byte_of_dot = _mm_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1);
  const __m128i bit_of_dot = _mm_set1_epi64x(static_cast<long long>(0x8040201008040201u));
  const __m128i spread = _mm_shuffle_epi8(_mm_cvtsi32_si128(static_cast<int>(bits & 0xffff)), byte_of_dot);
  return _mm_cmpeq_epi8(_mm_and_si128(spread, bit_of_dot), bit_of_dot);
}

void keep_dots(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots) {
  std::size_t x = 0;
  for (; x + 64 <= count; x += 64) {
    const std::uint64_t bits = kept[x / 64];
    if (bits == ~std::uint64_t{0}) continue;
    for (std::size_t i = 0; i < 64; i += kBytes)
      store(dots + x + i, _mm_and_si128(load(dots + x + i), bytes_of_bits(bits >> i)));
  }
  scalar_steps::keep_dots(kept, count, dots, x);
}

/// Sixteen dots to four 32-bit lanes, each with the packed byte of four dots.
__m128i pack_lanes(__m128i levels) {
  const __m128i pairs = _mm_maddubs_epi16(levels, _mm_set1_epi16(0x0104));  // first * 4 + second
  return _mm_madd_epi16(pairs, _mm_set1_epi32(0x00010010));                 // first * 16 + second
}

void screen_packed(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                   const std::uint64_t* kept, const std::uint64_t* also_kept, std::size_t count,
                   std::uint8_t* out) {
  constexpr std::size_t kDots = 64;
  for (std::size_t x = 0; x < count; x += kDots) {
    const std::uint64_t bits = kept == nullptr ? ~std::uint64_t{0} : kept[x / 64] & also_kept[x / 64];
    const auto lanes = [&](std::size_t i) {
      const __m128i above = _mm_subs_epu8(load(threshold + x + i), load(mask + x + i));
      const __m128i levels = _mm_add_epi8(load(base + x + i), _mm_min_epu8(above, _mm_set1_epi8(1)));
      return pack_lanes(_mm_and_si128(levels, bytes_of_bits(bits >> i)));
    };
    const __m128i bytes =
        _mm_packus_epi16(_mm_packs_epi32(lanes(0), lanes(16)), _mm_packs_epi32(lanes(32), lanes(48)));
    if (count - x >= kDots) {
      store(out + x / 4, bytes);
    } else {
      std::uint8_t last[kBytes];
      store(last, bytes);
      std::memcpy(out + x / 4, last, (count - x + 3) / 4);
    }
  }
}

void bits_at_least(const std::uint8_t* bytes, std::uint8_t least, std::size_t count, std::uint64_t* words) {
  const __m128i limit = _mm_set1_epi8(static_cast<char>(least));
  std::size_t x = 0;
  for (; x + 64 <= count; x += 64) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < 64; i += kBytes) {
      const __m128i value = load(bytes + x + i);
      const int bits = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(value, limit), value));
      word |= static_cast<std::uint64_t>(static_cast<unsigned>(bits)) << i;
    }
    words[x / 64] = word;
  }
  scalar_steps::bits_at_least(bytes, least, count, words, x);
}

}  // namespace

const ScreeningKernels kSse41Kernels = {
    InstructionSet::sse41, filter_columns, add_scaled_row, encode_row,    encode_pairs, mix_pairs,
    spread_codes,          screen_row,     keep_dots,      screen_packed, bits_at_least};

}  // namespace nvo
