#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/large_vector.h"

namespace nvo {

/// One bit a dot: `height` rows of `words_per_row` words; dot x is bit x % 64 of word x / 64. Bits past the
/// width are always 0.
struct BitPlane {
  std::uint32_t width = 0, height = 0;
  std::size_t words_per_row = 0;
  std::vector<std::uint64_t> words;

  BitPlane() = default;
  BitPlane(std::uint32_t plane_width, std::uint32_t plane_height)
      : width(plane_width),
        height(plane_height),
        words_per_row((std::size_t{plane_width} + 63) / 64),
        words(words_per_row * plane_height) {}

  /// Gives the plane another size in the memory that it has; what its words hold then means nothing.
  void reshape(std::uint32_t plane_width, std::uint32_t plane_height) {
    width = plane_width;
    height = plane_height;
    words_per_row = (std::size_t{plane_width} + 63) / 64;
    resize_large(words, words_per_row * plane_height);
  }

  bool empty() const { return words.empty(); }
  std::uint64_t* row(std::size_t y) { return words.data() + y * words_per_row; }
  const std::uint64_t* row(std::size_t y) const { return words.data() + y * words_per_row; }
  bool test(std::size_t x, std::size_t y) const { return row(y)[x / 64] >> (x % 64) & 1u; }
  void set(std::size_t x, std::size_t y) { row(y)[x / 64] |= std::uint64_t{1} << (x % 64); }

  /// The bits of a row's last word that stand for dots.
  std::uint64_t last_word_mask() const {
    return ~std::uint64_t{0} >> (63 - (width + std::uint64_t{63}) % 64);
  }
};

}  // namespace nvo
