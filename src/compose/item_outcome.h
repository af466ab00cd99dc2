#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compose/item_raster.h"

namespace nvo {

/// Samples of an image with a white channel: those with ink, those without, and what white they have.
struct WhiteTally {
  std::uint64_t inked = 0, inked_without_white = 0;
  std::uint64_t bare = 0, bare_with_full_white = 0;

  WhiteTally& operator+=(const WhiteTally& other);
};

/// Counts every eighth pixel of every eighth one of the source rows `rows`, which the view holds, but for
/// those that alpha hides. For an item with a White channel.
WhiteTally tally_white(const SourceView& view, const ItemTraits& traits, const IndexRange& rows,
                       std::uint32_t width);

/// Whether the art stands without white on a ground of full white: most likely the polarity was mistaken.
bool looks_inverted(const WhiteTally& tally);

/// What became of an item on the strips composed so far.
struct ItemOutcome {
  bool on_sheet = false;                ///< some of its pixels lie on the sheet
  bool painted = false;                 ///< pixels were written
  bool inked = false;                   ///< and some of them had ink
  bool white_is_alpha = false;          ///< only pixels with white count
  std::string failure;                  ///< why rows are missing; the first reason
  std::vector<IndexRange> failed_rows;  ///< of the item as placed; they may overlap
  WhiteTally white;

  void add(const ItemOutcome& other);
  /// The rows that are missing, from the first to the last, and how many of them are.
  IndexRange missing_span() const;
  std::uint32_t missing_rows() const;
};

}  // namespace nvo
