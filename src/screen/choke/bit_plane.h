#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "core/large_vector.h"

namespace nvo {

/// One bit a dot: `height` rows of `words_per_row` words; dot x is bit x % 64 of word x / 64. Bits past the
/// width are always 0. Equal rows may be stored once.
struct BitPlane {
  /// For each row the index of the one stored for it.
  using RowTable = std::shared_ptr<const std::vector<std::uint32_t>>;

  std::uint32_t width = 0, height = 0;
  std::size_t words_per_row = 0;
  LargeVector<std::uint64_t> words;
  RowTable stored_row;  ///< null where every row is stored

  BitPlane() = default;
  BitPlane(std::uint32_t plane_width, std::uint32_t plane_height)
      : width(plane_width),
        height(plane_height),
        words_per_row((std::size_t{plane_width} + 63) / 64),
        words(words_per_row * plane_height, 0) {}

  /// Gives the plane another size in the memory that it has; what its words hold then means nothing. With a
  /// table of rows it has `stored_rows` of them.
  void reshape(std::uint32_t plane_width, std::uint32_t plane_height, RowTable table = {},
               std::size_t stored_rows = 0) {
    width = plane_width;
    height = plane_height;
    words_per_row = (std::size_t{plane_width} + 63) / 64;
    stored_row = std::move(table);
    resize_large(words, words_per_row * (stored_row ? stored_rows : plane_height));
  }

  bool empty() const { return words.empty(); }
  std::uint64_t* row(std::size_t y) { return words.data() + place_of(y); }
  const std::uint64_t* row(std::size_t y) const { return words.data() + place_of(y); }
  bool test(std::size_t x, std::size_t y) const { return row(y)[x / 64] >> (x % 64) & 1u; }
  void set(std::size_t x, std::size_t y) { row(y)[x / 64] |= std::uint64_t{1} << (x % 64); }

  /// The bits of a row's last word that stand for dots.
  std::uint64_t last_word_mask() const {
    return ~std::uint64_t{0} >> (63 - (width + std::uint64_t{63}) % 64);
  }

 private:
  std::size_t place_of(std::size_t y) const { return (stored_row ? (*stored_row)[y] : y) * words_per_row; }
};

}  // namespace nvo
