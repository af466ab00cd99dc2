#pragma once

#include <array>
#include <cstdint>
#include <cstring>

namespace nvo {

/// Four single-precision numbers that are worked on together, such as the channels of a pixel. Every lane is
/// computed as a plain float would be: same operations, same order, no fused ones.
struct alignas(16) Float4 {
  using Lanes = float __attribute__((vector_size(16)));
  using Integers = std::int32_t __attribute__((vector_size(16)));
  Lanes v{};

  static Float4 all(float value) { return {Lanes{value, value, value, value}}; }
  static Float4 of(float a, float b, float c, float d) { return {Lanes{a, b, c, d}}; }
  Float4 broadcast(int lane) const { return all(v[lane]); }
  float operator[](int lane) const { return v[lane]; }

  friend Float4 operator+(Float4 a, Float4 b) { return {a.v + b.v}; }
  friend Float4 operator*(Float4 a, Float4 b) { return {a.v * b.v}; }
  /// The smaller number of each lane.
  friend Float4 min(Float4 a, Float4 b) { return {a.v < b.v ? a.v : b.v}; }

  Integers truncated() const { return __builtin_convertvector(v, Integers); }
};

}  // namespace nvo
