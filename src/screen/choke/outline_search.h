#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "screen/choke/bit_morphology.h"
#include "screen/choke/choke_context.h"
#include "screen/choke/choke_offsets.h"
#include "screen/kernels/ring_kernels.h"

// Who gives a ring dot its colour.
//
// The rule is told from the outline's side: groups of displacements from near to far; in each group the
// outline dots by row, then by column, each claiming what it reaches and nobody claimed before. An outline
// dot reaches a given dot by one displacement only, so that dot goes to the outline dot with the least
// (group, row, column). The displacements are symmetric: their own order, by (group, dy, dx), is the order of
// the outline dots around any dot.
namespace nvo {

/// The colour's outline: colour dots without explicit white next to a dot without colour. Rows have `margin`
/// clear words at either side.
class OutlineRows final : public ComputedRows {
 public:
  OutlineRows(const ChokeContext& context, std::size_t margin, std::size_t kept);
  std::size_t margin() const { return margin_; }

 protected:
  bool compute(std::size_t y, std::uint64_t* row) override;

 private:
  const ChokeContext& context_;
  std::size_t margin_;
  std::vector<std::uint64_t>
      gaps_;  ///< dots with one without colour right above or below, or without it themselves
};

/// The order of a list of displacements in the form of `RowSearch`; none where it doesn't fit that form.
std::optional<RingMetric> ring_metric(std::span<const ChokeOffset> offsets);

/// The search a row at a time, at a cost per dot that no art raises. For a given column distance grows with
/// the rows, so of each column only the nearest outline dot above or below can be a dot's source; at equal
/// distance the one above comes first in the list. And of the columns k to the left and k to the right the
/// one with the nearer dot, above before below, left before right. That leaves one candidate for each k, and
/// a table puts them in the order of the list: two classes (k, rows, above or below) share a place in it only
/// where k is the same and nothing lies between them.
class RowSearch {
 public:
  /// Rows below are counted from the bottom up, so many at a time.
  static constexpr std::size_t kRowsAtOnce = 32;

  /// The arguments must outlive the object.
  RowSearch(OutlineRows& outline, const ColourRingRows& ring, const RingMetric& metric);

  /// Tells in `found` which dots of row y that are set in `wanted` have a source, and in `changed` for which
  /// of them it has another column or code row than the one found last for column x, or whose bit is clear in
  /// `held`. Appends the places of their sources. May clear bits of `wanted`. Rows ascend. False if nothing
  /// was found; the outputs then mean nothing.
  bool find(std::size_t y, std::uint64_t* wanted, const std::uint64_t* held, std::uint64_t* found,
            std::uint64_t* changed, std::uint32_t*& places_end);

 private:
  /// Distances for some rows.
  struct Distances {
    std::vector<std::uint8_t> rows, life;
    OutlineDistances at(std::size_t row, std::size_t words) {
      return {rows.data() + row * words * 64, life.data() + row * words};
    }
  };

  bool any_near(std::uint64_t* wanted) const;
  void append_places(const std::uint64_t* changed, std::uint32_t*& places_end) const;
  const std::uint64_t* outline(std::size_t y);
  void count_to(std::size_t y);
  void count_below(std::size_t y);
  void number_code_rows(std::size_t y);

  OutlineRows& outline_;
  const ColourRingRows& ring_;
  RingMetric metric_;
  const RingKernels& kernels_;
  std::size_t reach_, words_;
  std::vector<std::uint64_t> clear_row_;
  Distances above_;  ///< one row, from the outline above
  Distances below_;  ///< rows `below_begin_` and on, and one behind the last
  std::size_t above_row_, below_begin_ = 0, below_end_ = 0;
  std::vector<std::uint8_t> keys_, live_;  ///< with a margin on either side
  std::vector<std::int8_t> column_;
  std::vector<std::uint8_t> key_, code_row_held_;
  std::array<std::uint8_t, RingMetric::kKeys> code_row_of_key_{};
  std::array<std::uint32_t, RingMetric::kKeys> place_of_key_{};
};

}  // namespace nvo
