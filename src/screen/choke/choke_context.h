#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "screen/choke/bit_plane.h"

namespace nvo {

/// A dot outside the colour core that takes the colour of another one.
struct RingDot {
  std::uint32_t x = 0;         ///< column of the dot
  std::uint32_t source_x = 0;  ///< column and row, on the context's grid, of the dot whose colour it takes
  std::uint32_t source_y = 0;
};

/// The dots of a strip's ring, row by row, told by what changes from row to row: most ring dots take the
/// colour of the one above them. Memory follows the art's outline, not the printer's rows.
struct ColourRingRows {
  /// In the first row of a panel every ring dot counts as changed, so that reading may begin there.
  static constexpr std::size_t kPanelRows = 32;

  /// The ring dots whose source has another column or code row than that of the ring dot right above, and
  /// those that have no ring dot above. Any other takes the same code as the one above. Empty if nothing
  /// grew.
  BitPlane changed;
  /// For each panel the places of the codes that its changed dots take, row by row, by ascending column.
  std::vector<std::vector<std::uint32_t>> panels;
  std::vector<std::uint32_t> row_ends;  ///< of each row in its panel
  /// Device rows with the same number have the same drop codes in every ink, by either way of sampling.
  /// Ascending by at most 1.
  std::vector<std::uint32_t> code_row;
  std::vector<std::uint32_t> slot;  ///< of each row, see `place`
  std::uint32_t reach = 0;          ///< rows from a ring dot to its source, at most
  std::uint32_t code_rows = 0;      ///< most numbers of `code_row` within the reach of one row
  std::uint32_t stride = 0;         ///< at least the width

  /// Sets what follows from `code_row`, `grid_width` and `rows_in_reach`.
  void lay_out(std::uint32_t grid_width, std::uint32_t rows_in_reach);
  /// Whoever reads the ring keeps the codes of the rows within reach in a table of `code_rows` rows, each
  /// `stride` long: those of device row y lie in row `slot[y]` of it and begin here.
  std::uint32_t place(std::size_t y) const { return slot[y] * stride; }

  bool empty() const;
  /// The places of the changed dots of row y.
  std::span<const std::uint32_t> places(std::size_t y) const;

  /// Calls `take(x, place)` for the changed dots of row y.
  template <class Take>
  void for_each_change(std::size_t y, const Take& take) const {
    const std::span<const std::uint32_t> all = places(y);
    const std::uint32_t* next = all.data();
    const std::uint32_t* const end = next + all.size();
    for (const std::uint64_t* word = changed.row(y); next != end; ++word) {
      const auto first = static_cast<std::size_t>(word - changed.row(y)) * 64;
      for (std::uint64_t left = *word; left != 0; left &= left - 1)
        take(first + static_cast<std::size_t>(std::countr_zero(left)), *next++);
    }
  }
};

/// Masks of the white choke on the device grid of one strip. Planes cover width x height dots; `support`,
/// `keep` and `light` are empty where they do not apply.
struct ChokeContext {
  std::uint32_t width = 0, height = 0;  ///< device dots
  float radius_in = 0.0f;
  float radius_px_x = 0.0f, radius_px_y = 0.0f;  ///< device dots
  bool adaptive = false;
  std::uint32_t min_width_dots = 0;
  bool protect_light = false;
  float lightness_threshold = 0.0f;  ///< 0..100
  BitPlane colour_core;              ///< the dot has colour
  BitPlane exempt;                   ///< the dot carries an explicit white; empty when no dot does
  BitPlane grown;                    ///< colour core and the ring around it
  BitPlane support;                  ///< adaptive: white may stand here at all
  BitPlane keep;                     ///< adaptive: white survives here
  BitPlane light;                    ///< adaptive with light protection: a light area
  ColourRingRows ring;  ///< where the dots of `grown` that are not `colour_core` take their colour

  /// The ring dots of row y by ascending column, each with a source that has the codes of the true one. For
  /// diagnosis: reads the panel up to the row.
  std::vector<RingDot> ring_of_row(std::size_t y) const;
};

}  // namespace nvo
