// Compiled alone with -mavx2, and without -mfma: a fused product would round differently.
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

Codes encode_eight(const float* inks) {
  const __m256 levels = _mm256_min_ps(_mm256_div_ps(_mm256_loadu_ps(inks), _mm256_set1_ps(kInkPerLevel)),
                                      _mm256_set1_ps(kMaxLevel));
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
    const Codes a = encode_eight(inks + x), b = encode_eight(inks + x + 8);
    const Codes c = encode_eight(inks + x + 16), d = encode_eight(inks + x + 24);
    store(base + x, pack_bytes(a.base, b.base, c.base, d.base));
    store(threshold + x, pack_bytes(a.threshold, b.threshold, c.threshold, d.threshold));
  }
  scalar_steps::encode_row(inks, count, base, threshold, x);
}

void spread_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in, const std::int32_t* column,
                  std::size_t count, std::uint8_t* base, std::uint8_t* threshold) {
  constexpr std::size_t kHalf = kBytes / 2;  // a byte shuffle picks within 16 bytes
  std::size_t x = 0;
  for (; x + kHalf <= count; x += kHalf) {
    const std::int32_t first = column[x];
    if (column[x + kHalf - 1] - first >= static_cast<std::int32_t>(kHalf)) break;  // left to the plain loop
    const __m128i origin = _mm_set1_epi32(first);
    const __m128i a = _mm_sub_epi32(load_half(column + x), origin);
    const __m128i b = _mm_sub_epi32(load_half(column + x + 4), origin);
    const __m128i c = _mm_sub_epi32(load_half(column + x + 8), origin);
    const __m128i d = _mm_sub_epi32(load_half(column + x + 12), origin);
    const __m128i pick = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
    store_half(base + x, _mm_shuffle_epi8(load_half(base_in + first), pick));
    store_half(threshold + x, _mm_shuffle_epi8(load_half(threshold_in + first), pick));
  }
  scalar_steps::spread_codes(base_in, threshold_in, column, count, base, threshold, x);
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

}  // namespace

const ScreeningKernels kAvx2Kernels = {InstructionSet::avx2, filter_columns, add_scaled_row, encode_row,
                                       spread_codes,         screen_row,     keep_dots};

}  // namespace nvo
