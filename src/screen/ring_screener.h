#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "screen/choke/choke_context.h"
#include "screen/row_sampler.h"

namespace nvo {

/// The codes of ring dots for one worker: a row of them, kept up to date by what changes from row to row. The
/// device rows that they are taken from are sampled once, as they are for the dots of the row itself, and
/// held as long as they are in reach.
class RingScreener {
 public:
  RingScreener(const ColourRingRows& ring, const StripSampling& sampling, RowBuffers& buffers);

  /// The codes of row y, by `sample(y)` unless they are held; valid until rows out of reach are asked for.
  template <class Sample>
  CodeRow hold(std::size_t y, const Sample& sample) {
    Held& held = held_[ring_.slot[y]];
    const std::uint32_t place = ring_.place(y);
    if (held.code_row != ring_.code_row[y]) {
      held = {ring_.code_row[y], true};
      held.blank = !store(sample(y), place);
    }
    if (held.blank) return {};
    return {false, table_.base.data() + place, table_.threshold.data() + place};
  }

  /// The codes of the ring dots of row y; what they hold for other dots means nothing. Rows ascend.
  template <class Sample>
  CodeRow codes(std::size_t y, const Sample& sample) {
    constexpr std::size_t kPanelRows = ColourRingRows::kPanelRows;
    if (next_row_ > y || y - next_row_ >= kPanelRows) next_row_ = y - y % kPanelRows;
    for (; next_row_ <= y; ++next_row_) {
      if (next_row_ % kPanelRows == 0) clear();
      if (!ring_.places(next_row_).empty() && (hold_reach(next_row_, sample) || any_)) apply(next_row_);
    }
    if (!any_) return {};
    return {false, codes_.base.data(), codes_.threshold.data()};
  }

 private:
  /// What a row of the table holds.
  struct Held {
    std::uint32_t code_row = std::numeric_limits<std::uint32_t>::max();
    bool blank = false;
  };

  bool store(const CodeRow& row, std::uint32_t place);
  void clear();
  void apply(std::size_t y);

  /// Brings all rows in reach of row y into the table. False if none of them has ink: where none had before,
  /// the ring has none.
  template <class Sample>
  bool hold_reach(std::size_t y, const Sample& sample) {
    const std::size_t end = std::min<std::size_t>(y + ring_.reach + 1, ring_.code_row.size());
    std::size_t row = y - std::min<std::size_t>(y, ring_.reach);
    bool any = !hold(row, sample).blank;
    for (++row; row < end; ++row)
      if (ring_.code_row[row] != ring_.code_row[row - 1] && !hold(row, sample).blank) any = true;
    return any;
  }

  const ColourRingRows& ring_;
  HeldCodes &table_, &codes_;
  std::vector<Held> held_;
  std::size_t next_row_ = std::numeric_limits<std::size_t>::max();
  bool any_ = true;  ///< a dot of `codes_` may have ink; else all are 0
};

}  // namespace nvo
