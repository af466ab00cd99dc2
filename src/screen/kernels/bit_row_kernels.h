#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// Steps of erosion and dilation on rows of bits (dot x is bit x % 64 of word x / 64) for one instruction
/// set. All give the same words.
struct BitRowKernels {
  /// Combines four rows, which may repeat, into `to`.
  using CombineRows = void (*)(std::uint64_t* to, const std::uint64_t* const rows[4], std::size_t words);
  /// Combines each dot of `from` with those `shift` columns (1 to 63) to its left and right. Reads a word
  /// beyond either end of `from`; `to` is another row.
  using CombineColumns = void (*)(const std::uint64_t* from, std::uint64_t* to, int shift, std::size_t words);

  CombineRows and_rows, or_rows;
  CombineColumns and_columns, or_columns;
};

}  // namespace nvo
