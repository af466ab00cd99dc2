#include <immintrin.h>

#include "screen/kernels/pack_kernels.h"

// Compiled with AVX2 instructions and run only where the machine has them.
namespace nvo {
namespace {

constexpr std::uint32_t kDotsPerRound = 128;

// 32 dots to eight 32-bit lanes, each with the packed byte of four dots.
__m256i pack_lanes(const std::uint8_t* dots) {
  const __m256i levels =
      _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(dots)), _mm256_set1_epi8(3));
  const __m256i pairs = _mm256_maddubs_epi16(levels, _mm256_set1_epi16(0x0104));  // first * 4 + second
  return _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00010010));                 // first * 16 + second
}

}  // namespace

void pack_row_avx2(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  // Narrowing to bytes works on 128-bit halves; this brings the groups of four bytes back into order.
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  std::uint32_t x = 0;
  for (; width - x >= kDotsPerRound; x += kDotsPerRound) {
    const __m256i low = _mm256_packs_epi32(pack_lanes(dots + x), pack_lanes(dots + x + 32));
    const __m256i high = _mm256_packs_epi32(pack_lanes(dots + x + 64), pack_lanes(dots + x + 96));
    const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(low, high), order);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x / 4), bytes);
  }
  pack_row_portable(dots + x, width - x, out + x / 4);
}

}  // namespace nvo
