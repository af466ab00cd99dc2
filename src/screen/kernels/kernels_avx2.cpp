// Compiled alone with -mavx2, and without -mfma: a fused product would round differently.
#include <cstdint>

#include <immintrin.h>

#include "screen/kernels/simd_kernels.h"

namespace nvo {
namespace {

/// Registers of 256 bits, see simd_kernels.h. Packs and unpacks work within halves; permutations restore the
/// order.
struct Avx2 {
  using Bytes = __m256i;
  using Floats = __m256;
  static constexpr std::size_t kBytes = 32, kFloats = 8;

  static Bytes load(const void* from) { return _mm256_loadu_si256(static_cast<const __m256i*>(from)); }
  static void store(void* to, Bytes value) { _mm256_storeu_si256(static_cast<__m256i*>(to), value); }
  static Bytes all_8(int value) { return _mm256_set1_epi8(static_cast<char>(value)); }
  static Bytes all_16(int value) { return _mm256_set1_epi16(static_cast<short>(value)); }
  static Bytes all_32(int value) { return _mm256_set1_epi32(value); }
  static Bytes both(Bytes a, Bytes b) { return _mm256_and_si256(a, b); }
  static Bytes either(Bytes a, Bytes b) { return _mm256_or_si256(a, b); }
  static Bytes exclusive(Bytes a, Bytes b) { return _mm256_xor_si256(a, b); }
  static Bytes without(Bytes a, Bytes b) { return _mm256_andnot_si256(b, a); }
  /// b where the bytes of `mask` are 0xff, a where they are 0.
  static Bytes select(Bytes a, Bytes b, Bytes mask) { return _mm256_blendv_epi8(a, b, mask); }
  static Bytes equal_8(Bytes a, Bytes b) { return _mm256_cmpeq_epi8(a, b); }
  static Bytes shuffle(Bytes table, Bytes index) { return _mm256_shuffle_epi8(table, index); }
  static Bytes load_sixteen_repeated(const void* from) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(from)));
  }
  static Bytes add_8(Bytes a, Bytes b) { return _mm256_add_epi8(a, b); }
  static Bytes add_saturated(Bytes a, Bytes b) { return _mm256_adds_epu8(a, b); }
  static Bytes subtract_saturated(Bytes a, Bytes b) { return _mm256_subs_epu8(a, b); }
  static Bytes least_8(Bytes a, Bytes b) { return _mm256_min_epu8(a, b); }
  static Bytes greatest_8(Bytes a, Bytes b) { return _mm256_max_epu8(a, b); }
  static Bytes subtract_32(Bytes a, Bytes b) { return _mm256_sub_epi32(a, b); }
  static Bytes multiply_add_8(Bytes a, Bytes b) { return _mm256_maddubs_epi16(a, b); }
  static Bytes multiply_add_16(Bytes a, Bytes b) { return _mm256_madd_epi16(a, b); }
  template <int bits>
  static Bytes shift_left_16(Bytes a) {
    return _mm256_slli_epi16(a, bits);
  }
  template <int bits>
  static Bytes shift_right_16(Bytes a) {
    return _mm256_srli_epi16(a, bits);
  }
  static Bytes pack_32_to_16(Bytes a, Bytes b) {
    return _mm256_permute4x64_epi64(_mm256_packus_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0));
  }
  static Bytes pack_32_to_8(Bytes a, Bytes b, Bytes c, Bytes d) {
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
    return _mm256_permutevar8x32_epi32(bytes, order);
  }
  static std::uint64_t bits_where_equal(Bytes a, Bytes b) {
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(a, b)));
  }
  /// 0xff for each of the low 32 bits that is set.
  static Bytes bytes_of_bits(std::uint64_t bits) {
    const __m256i byte_of_dot = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1,  //
                                                 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
    const __m256i bit_of_dot = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201u));
    const __m256i repeated =
        _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(bits & 0xffffffffu)), byte_of_dot);
    return _mm256_cmpeq_epi8(_mm256_and_si256(repeated, bit_of_dot), bit_of_dot);
  }

  static Floats load_floats(const float* from) { return _mm256_loadu_ps(from); }
  static void store_floats(float* to, Floats value) { _mm256_storeu_ps(to, value); }
  static Floats all_floats(float value) { return _mm256_set1_ps(value); }
  static Floats add_floats(Floats a, Floats b) { return _mm256_add_ps(a, b); }
  static Floats subtract_floats(Floats a, Floats b) { return _mm256_sub_ps(a, b); }
  static Floats multiply(Floats a, Floats b) { return _mm256_mul_ps(a, b); }
  static Floats divide(Floats a, Floats b) { return _mm256_div_ps(a, b); }
  static Floats least(Floats a, Floats b) { return _mm256_min_ps(a, b); }
  static Floats clamp(Floats a, float low, float high) {
    return _mm256_min_ps(_mm256_max_ps(a, _mm256_set1_ps(low)), _mm256_set1_ps(high));
  }
  static Bytes truncated(Floats a) { return _mm256_cvttps_epi32(a); }
  static Bytes rounded(Floats a) { return _mm256_cvtps_epi32(a); }
  static Floats to_floats(Bytes a) { return _mm256_cvtepi32_ps(a); }
  static Bytes minus_one_where_above(Floats a, Floats b) {
    return _mm256_castps_si256(_mm256_cmp_ps(a, b, _CMP_GT_OQ));
  }
  /// a, b, a, b, ... : two registers.
  static void store_by_turns(float* to, Floats a, Floats b) {
    const __m256 low = _mm256_unpacklo_ps(a, b), high = _mm256_unpackhi_ps(a, b);
    _mm256_storeu_ps(to, _mm256_permute2f128_ps(low, high, 0x20));
    _mm256_storeu_ps(to + kFloats, _mm256_permute2f128_ps(low, high, 0x31));
  }

  /// The pixels at eight starts that lie within eight pixels.
  class NearPick {
   public:
    static constexpr std::int32_t kReach = 8;
    explicit NearPick(const std::int32_t* start)
        : first_(start[0]), pick_(_mm256_sub_epi32(load(start), _mm256_set1_epi32(start[0]))) {}
    Floats from(const float* pixel) const { return pick_of_8(pixel + first_); }

   protected:
    Floats pick_of_8(const float* from) const {
      return _mm256_permutevar8x32_ps(_mm256_loadu_ps(from), pick_);
    }
    std::int32_t first_;
    __m256i pick_;
  };

  /// The same within sixteen.
  class FarPick : NearPick {
   public:
    static constexpr std::int32_t kReach = 16;
    using NearPick::NearPick;
    Floats from(const float* pixel) const {
      const __m256 upper = _mm256_castsi256_ps(_mm256_cmpgt_epi32(pick_, _mm256_set1_epi32(7)));
      return _mm256_blendv_ps(pick_of_8(pixel + first_), pick_of_8(pixel + first_ + 8), upper);
    }
  };
};

}  // namespace
}  // namespace nvo

namespace nvo::instruction_sets {

extern constinit const InstructionSet avx2 = simd_instruction_set<Avx2>("avx2");

}  // namespace nvo::instruction_sets
