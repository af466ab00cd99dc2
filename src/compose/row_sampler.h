#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "compose/float4.h"
#include "compose/sampling.h"

namespace nvo {

/// One sample of every pixel of a source row: sample x is `first[x * step] ^ invert`. A step of 0 repeats one
/// value.
struct SampleRow {
  const std::uint8_t* first = nullptr;
  std::ptrdiff_t step = 0;
  std::uint8_t invert = 0;

  std::uint8_t at(std::size_t x) const {
    return static_cast<std::uint8_t>(first[static_cast<std::ptrdiff_t>(x) * step] ^ invert);
  }
};

/// One channel of a source image, of which rows `first_row` .. `first_row + rows - 1` are in memory. Rows and
/// columns are those of the image as placed; steps are bytes and may be negative. Outside the rows held every
/// sample reads as `outside`.
struct ChannelView {
  const std::uint8_t* samples = nullptr;  ///< of the first row held; null where the image has no such channel
  std::ptrdiff_t column_step = 0, row_step = 0;
  std::uint32_t first_row = 0, rows = 0;
  std::uint8_t invert = 0;  ///< 0xFF for a channel that is stored as its complement
  std::uint8_t outside = 0;

  bool exists() const { return samples != nullptr; }
  SampleRow row(std::uint32_t y) const;
};

/// The destination columns [begin, end) of an item that are to be sampled, mapped onto the source's columns.
/// Shared by all rows and threads. Columns are counted from `begin` in everything below.
class ColumnMap {
 public:
  ColumnMap(std::uint32_t begin, std::uint32_t end, std::uint32_t dest_width, std::uint32_t source_width,
            bool with_boxes);

  std::uint32_t size() const { return static_cast<std::uint32_t>(samples_.size()); }
  const AxisSample* samples() const { return samples_.data(); }
  const std::uint32_t* nearest() const { return nearest_.data(); }
  const AxisSpan* boxes() const { return boxes_.data(); }

  /// True when every column falls on one source sample, so that nothing is mixed.
  bool exact() const { return exact_; }
  /// True when the nearest samples are neighbours, one for each column.
  bool contiguous() const { return contiguous_; }
  /// The source columns that `samples` name.
  std::uint32_t first_source() const { return first_source_; }
  std::uint32_t source_count() const { return source_count_; }

 private:
  std::vector<AxisSample> samples_;
  std::vector<std::uint32_t> nearest_;
  std::vector<AxisSpan> boxes_;
  bool exact_ = true, contiguous_ = true;
  std::uint32_t first_source_ = 0, source_count_ = 0;
};

/// The two source rows that a destination row mixes, in the form that mixing wants; neighbours share one of
/// them, so that each source row is brought into that form once on the way down.
template <class Element>
class SourceRowPair {
 public:
  template <class Decode>
  std::pair<const Element*, const Element*> get(std::uint32_t lo, std::uint32_t hi, const Decode& decode) {
    Slot& lower = slot_of(lo, hi);
    if (lower.row != lo) decode(lo, lower.values), lower.row = lo;
    Slot& upper = slot_of(hi, lo);
    if (upper.row != hi) decode(hi, upper.values), upper.row = hi;
    return {lower.values.data(), upper.values.data()};
  }

 private:
  struct Slot {
    std::vector<Element> values;
    std::optional<std::uint32_t> row;
  };
  Slot& slot_of(std::uint32_t row, std::uint32_t keep) {
    if (slots_[0].row == row || slots_[1].row == row) return slots_[slots_[0].row == row ? 0 : 1];
    return slots_[slots_[0].row == keep ? 1 : 0];
  }
  std::array<Slot, 2> slots_;
};

/// Samples one channel, alpha or white coverage, a whole row at a time. For one thread.
class ChannelSampler {
 public:
  ChannelSampler(const ChannelView& channel, const ColumnMap& columns)
      : channel_(channel), columns_(columns) {}

  /// Each fills `out` with one byte a column.
  void nearest(std::uint32_t source_row, std::uint8_t* out) const;
  void bilinear(const AxisSample& row, std::uint8_t* out);
  /// Integer mean over the box that the pixel covers, rounded half up.
  void box(const AxisSpan& rows, std::uint8_t* out) const;

 private:
  ChannelView channel_;
  const ColumnMap& columns_;
  SourceRowPair<std::uint8_t> row_pair_;
};

/// Samples the three or four colour channels of a row into interleaved bytes. For one thread.
class ColorSampler {
 public:
  ColorSampler(std::vector<ChannelView> channels, const ColumnMap& columns, bool linear_light);

  std::uint32_t channel_count() const { return static_cast<std::uint32_t>(channels_.size()); }

  /// Samples columns [begin, end) into `channel_count()` bytes a column. May write up to `kSlack` bytes more.
  void nearest(std::uint32_t source_row, std::uint32_t begin, std::uint32_t end, std::uint8_t* out) const;
  void bilinear(const AxisSample& row, std::uint32_t begin, std::uint32_t end, std::uint8_t* out);

  static constexpr std::size_t kSlack = 4;

 private:
  void decode(std::uint32_t source_row, std::vector<Float4>& pixels) const;
  const std::uint8_t* interleaved_row(std::uint32_t source_row) const;

  std::vector<ChannelView> channels_;
  const ColumnMap& columns_;
  const bool linear_light_;
  const bool interleaved_;  ///< the channels lie side by side in their order
  SourceRowPair<Float4> row_pair_;
};

}  // namespace nvo
