#pragma once

#include <cstdint>
#include <limits>
#include <optional>

namespace nvo {

/// Product of two sizes, or nothing when it does not fit 64 bits.
inline std::optional<std::uint64_t> checked_product(std::uint64_t a, std::uint64_t b) {
  std::uint64_t product = 0;
  if (__builtin_mul_overflow(a, b, &product)) return std::nullopt;
  return product;
}

/// Sum of two sizes, or nothing when it does not fit 64 bits.
inline std::optional<std::uint64_t> checked_sum(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) return std::nullopt;
  return sum;
}

inline constexpr std::uint64_t kMaxU32 = std::numeric_limits<std::uint32_t>::max();

}  // namespace nvo
