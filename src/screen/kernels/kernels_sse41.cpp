// Compiled alone with -msse4.1.
#include <cstdint>

#include <smmintrin.h>

#include "screen/kernels/simd_kernels.h"

namespace nvo {
namespace {

/// Registers of 128 bits, see simd_kernels.h.
struct Sse41 {
  using Bytes = __m128i;
  using Floats = __m128;
  static constexpr std::size_t kBytes = 16, kFloats = 4;

  static Bytes load(const void* from) { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }
  static void store(void* to, Bytes value) { _mm_storeu_si128(static_cast<__m128i*>(to), value); }
  static Bytes all_8(int value) { return _mm_set1_epi8(static_cast<char>(value)); }
  static Bytes all_16(int value) { return _mm_set1_epi16(static_cast<short>(value)); }
  static Bytes all_32(int value) { return _mm_set1_epi32(value); }
  static Bytes both(Bytes a, Bytes b) { return _mm_and_si128(a, b); }
  static Bytes either(Bytes a, Bytes b) { return _mm_or_si128(a, b); }
  static Bytes exclusive(Bytes a, Bytes b) { return _mm_xor_si128(a, b); }
  static Bytes without(Bytes a, Bytes b) { return _mm_andnot_si128(b, a); }
  /// b where the bytes of `mask` are 0xff, a where they are 0.
  static Bytes select(Bytes a, Bytes b, Bytes mask) { return _mm_blendv_epi8(a, b, mask); }
  static Bytes equal_8(Bytes a, Bytes b) { return _mm_cmpeq_epi8(a, b); }
  static Bytes shuffle(Bytes table, Bytes index) { return _mm_shuffle_epi8(table, index); }
  static Bytes load_sixteen_repeated(const void* from) {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
  }
  static Bytes add_8(Bytes a, Bytes b) { return _mm_add_epi8(a, b); }
  static Bytes add_saturated(Bytes a, Bytes b) { return _mm_adds_epu8(a, b); }
  static Bytes subtract_saturated(Bytes a, Bytes b) { return _mm_subs_epu8(a, b); }
  static Bytes least_8(Bytes a, Bytes b) { return _mm_min_epu8(a, b); }
  static Bytes greatest_8(Bytes a, Bytes b) { return _mm_max_epu8(a, b); }
  static Bytes subtract_32(Bytes a, Bytes b) { return _mm_sub_epi32(a, b); }
  static Bytes multiply_add_8(Bytes a, Bytes b) { return _mm_maddubs_epi16(a, b); }
  static Bytes multiply_add_16(Bytes a, Bytes b) { return _mm_madd_epi16(a, b); }
  template <int bits>
  static Bytes shift_left_16(Bytes a) {
    return _mm_slli_epi16(a, bits);
  }
  template <int bits>
  static Bytes shift_right_16(Bytes a) {
    return _mm_srli_epi16(a, bits);
  }
  static Bytes pack_32_to_16(Bytes a, Bytes b) { return _mm_packus_epi32(a, b); }
  static Bytes pack_32_to_8(Bytes a, Bytes b, Bytes c, Bytes d) {
    return _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
  }
  static std::uint64_t bits_where_equal(Bytes a, Bytes b) {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, b)));
  }
  /// 0xff for each of the low 16 bits that is set.
  static Bytes bytes_of_bits(std::uint64_t bits) {
    const __m128i byte_of_dot = _mm_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1);
    const __m128i bit_of_dot = _mm_set1_epi64x(static_cast<long long>(0x8040201008040201u));
    const __m128i repeated =
        _mm_shuffle_epi8(_mm_cvtsi32_si128(static_cast<int>(bits & 0xffff)), byte_of_dot);
    return _mm_cmpeq_epi8(_mm_and_si128(repeated, bit_of_dot), bit_of_dot);
  }

  static Floats load_floats(const float* from) { return _mm_loadu_ps(from); }
  static void store_floats(float* to, Floats value) { _mm_storeu_ps(to, value); }
  static Floats all_floats(float value) { return _mm_set1_ps(value); }
  static Floats add_floats(Floats a, Floats b) { return _mm_add_ps(a, b); }
  static Floats subtract_floats(Floats a, Floats b) { return _mm_sub_ps(a, b); }
  static Floats multiply(Floats a, Floats b) { return _mm_mul_ps(a, b); }
  static Floats divide(Floats a, Floats b) { return _mm_div_ps(a, b); }
  static Floats least(Floats a, Floats b) { return _mm_min_ps(a, b); }
  static Floats clamp(Floats a, float low, float high) {
    return _mm_min_ps(_mm_max_ps(a, _mm_set1_ps(low)), _mm_set1_ps(high));
  }
  static Bytes truncated(Floats a) { return _mm_cvttps_epi32(a); }
  static Bytes rounded(Floats a) { return _mm_cvtps_epi32(a); }
  static Floats to_floats(Bytes a) { return _mm_cvtepi32_ps(a); }
  static Bytes minus_one_where_above(Floats a, Floats b) { return _mm_castps_si128(_mm_cmpgt_ps(a, b)); }
  /// a, b, a, b, ... : two registers.
  static void store_by_turns(float* to, Floats a, Floats b) {
    _mm_storeu_ps(to, _mm_unpacklo_ps(a, b));
    _mm_storeu_ps(to + kFloats, _mm_unpackhi_ps(a, b));
  }

  /// The pixels at four starts, however far apart.
  class NearPick {
   public:
    static constexpr std::int32_t kReach = INT32_MAX;
    explicit NearPick(const std::int32_t* start) : start_(start) {}
    Floats from(const float* pixel) const {
      return _mm_setr_ps(pixel[start_[0]], pixel[start_[1]], pixel[start_[2]], pixel[start_[3]]);
    }

   private:
    const std::int32_t* start_;
  };
  using FarPick = NearPick;
};

}  // namespace
}  // namespace nvo

namespace nvo::instruction_sets {

extern constinit const InstructionSet sse41 = simd_instruction_set<Sse41>("sse41");

}  // namespace nvo::instruction_sets
