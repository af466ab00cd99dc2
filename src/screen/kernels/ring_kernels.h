#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// How near a dot of the colour's outline is, told by its column and by its *row key*: twice the rows to it,
/// plus one where it lies below.
struct RingMetric {
  static constexpr std::size_t kKeys = 64;
  static constexpr std::uint32_t kMostColumns = 31;

  std::uint32_t columns = 0;  ///< furthest column in reach
  /// For a column so far to the left or right, by row key: the higher, the nearer; 0 out of reach. Falls as
  /// the key rises.
  std::uint8_t nearness[kMostColumns + 1][kKeys] = {};
  std::uint8_t sixteens[kMostColumns + 1] = {};  ///< sixteens of keys, from 0 on, that hold all in reach
};

/// Rows from each dot of a row to the next outline dot in its column, in one direction; 255 is far. Words of
/// 64 dots whose life is 0 are far throughout, whatever their bytes say.
struct OutlineDistances {
  std::uint8_t* rows = nullptr;
  std::uint8_t* life = nullptr;  ///< one a word: rows until it may be far throughout
};

/// A row in search of the outline dots that are nearest to it.
struct RingRow {
  const std::uint64_t* wanted = nullptr;  ///< dots that look for one
  const std::uint64_t* held = nullptr;    ///< dots for which `column` and `code_row` tell the row before
  const std::uint8_t* keys = nullptr;     ///< row key of the nearest outline dot in each column; 255 is far
  const std::uint8_t* code_row_of_key = nullptr;  ///< `RingMetric::kKeys` of them
  std::uint64_t* found = nullptr;                 ///< dots that have one
  std::uint64_t* changed = nullptr;               ///< those for which column or code row are not as held
  std::int8_t* column = nullptr;                  ///< of what was found, counted from the dot
  std::uint8_t* key = nullptr;
  std::uint8_t* code_row = nullptr;
};

/// Steps of the search for ring dots' sources for one instruction set. All give the same bytes where they
/// mean something. Rows are whole words of 64 dots.
struct RingKernels {
  /// One row on: `to`, which may be `from`, is 0 at the outline's dots `outline` and one more than `from`
  /// elsewhere. `reach` is the furthest row of interest, below 255.
  void (*count_rows)(const std::uint64_t* outline, const OutlineDistances& from, const OutlineDistances& to,
                     std::uint8_t reach, std::size_t words);

  /// The row keys of the nearer one of `above` and `below`. `live` is 0 for words without one; such a word is
  /// only written when it was not 0 before.
  void (*nearest_keys)(const OutlineDistances& above, const OutlineDistances& below, std::size_t words,
                       std::uint8_t* keys, std::uint8_t* live);

  /// Looks for the nearest outline dot of each wanted dot; of two equally near columns the left one. Keys are
  /// readable for `kMostColumns` columns on either side of the row.
  void (*find_nearest)(const RingMetric& metric, const RingRow& row, std::size_t words);
};

}  // namespace nvo
