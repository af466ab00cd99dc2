#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nvo {

inline constexpr std::uint64_t kFnvOffsetBasis = 0xCBF29CE484222325ULL;
inline constexpr std::uint64_t kFnvPrime = 0x100000001B3ULL;

/// 64-bit FNV-1a (Fowler, Noll, Vo) of `size` bytes, continued from `state`.
inline std::uint64_t fnv1a(const void* data, std::size_t size, std::uint64_t state = kFnvOffsetBasis) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) state = (state ^ bytes[i]) * kFnvPrime;
  return state;
}

/// Hasher for maps keyed by a path or a content signature.
struct Fnv1aHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return fnv1a(text.data(), text.size()); }
};

}  // namespace nvo
