#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "screen/choke/bit_plane.h"
#include "screen/kernels/bit_row_kernels.h"

namespace nvo {

/// A symmetric set of displacements that is one unbroken run in every row and narrows away from row 0: (dx,
/// dy) belongs to it if |dy| < half_width.size() and |dx| <= half_width[|dy|]. (0, 0) always does.
struct OffsetShape {
  std::vector<std::uint32_t> half_width;

  /// All displacements of -h..h in both axes.
  static OffsetShape square(std::uint32_t h) { return {std::vector<std::uint32_t>(h + 1, h)}; }
  /// Rows above row 0, and below it.
  std::size_t reach() const { return half_width.size() - 1; }
};

/// A mask of `width` x `height` dots that is asked for row by row, so that a chain of steps need not hold
/// whole planes between them. For one thread.
class BitRows {
 public:
  BitRows(std::uint32_t width, std::uint32_t height)
      : width_(width), height_(height), words_((std::size_t{width} + 63) / 64) {}
  virtual ~BitRows() = default;
  BitRows(const BitRows&) = delete;
  BitRows& operator=(const BitRows&) = delete;

  std::uint32_t width() const { return width_; }
  std::uint32_t height() const { return height_; }
  std::size_t words() const { return words_; }

  /// Row y, which must be below the height, as in a `BitPlane`; null if no dot of it is set.
  virtual const std::uint64_t* row(std::size_t y) = 0;

 private:
  std::uint32_t width_, height_;
  std::size_t words_;
};

/// The rows of a plane.
class PlaneRows final : public BitRows {
 public:
  /// Row y of the plane equals row `equal_row[y]`, which is the one given out for it.
  PlaneRows(const BitPlane& plane, std::span<const std::uint32_t> equal_row)
      : BitRows(plane.width, plane.height), plane_(plane), equal_row_(equal_row) {}

  const std::uint64_t* row(std::size_t y) override;

 private:
  const BitPlane& plane_;
  std::span<const std::uint32_t> equal_row_;
};

/// Rows that are computed when they are asked for. `kept` consecutive rows stay valid together.
class ComputedRows : public BitRows {
 public:
  ComputedRows(std::uint32_t width, std::uint32_t height, std::size_t kept)
      : BitRows(width, height),
        held_(std::bit_ceil(kept), kNoRow),
        any_(held_.size()),
        rows_(held_.size() * words()) {}

  const std::uint64_t* row(std::size_t y) final;

 protected:
  /// Writes all words of row y. False if none of its dots is set; then what it writes means nothing.
  virtual bool compute(std::size_t y, std::uint64_t* out) = 0;

 private:
  static constexpr std::size_t kNoRow = std::numeric_limits<std::size_t>::max();

  std::vector<std::size_t> held_;  ///< row in slot y % size, a power of two
  std::vector<std::uint8_t> any_;
  std::vector<std::uint64_t> rows_;
};

/// What erosion and dilation share: each row combined from the source's rows under a shape.
class ShapedRows : public ComputedRows {
 protected:
  ShapedRows(BitRows& source, const OffsetShape& shape, std::size_t kept);

  using CombineRows = BitRowKernels::CombineRows;
  using CombineColumns = BitRowKernels::CombineColumns;

  /// Lists the source's rows under the shape, nearest first. False if a row is clear or outside the mask and
  /// `all_needed` is set, or if there is nothing to list.
  bool gather(std::size_t y, bool all_needed);
  /// With `overlap` 1 the steps across columns are shorter, each reaching back into what is covered.
  void combine(CombineRows combine_rows, CombineColumns combine_columns, std::uint32_t overlap,
               std::uint64_t* out);

  const BitRowKernels& kernels_;

 private:
  /// Combines each dot of the row in the making with those up to `reach` columns away.
  void widen(CombineColumns combine_columns, std::uint32_t reach, std::uint32_t overlap);

  struct Entry {
    std::uint32_t half_width;
    const std::uint64_t* row;
  };

  BitRows& source_;
  const OffsetShape& shape_;
  std::vector<Entry> entries_;
  std::vector<std::uint64_t> now_, next_;  ///< a row in the making, one clear word at either end
};

/// Erosion: a dot is set if every displacement of `shape` leads to a set dot inside the source.
class ErodedRows final : public ShapedRows {
 public:
  ErodedRows(BitRows& source, const OffsetShape& shape, std::size_t kept) : ShapedRows(source, shape, kept) {}

 protected:
  bool compute(std::size_t y, std::uint64_t* out) override;
};

/// Dilation: a dot is set if any displacement of `shape` leads to a set dot inside the source.
class DilatedRows final : public ShapedRows {
 public:
  DilatedRows(BitRows& source, const OffsetShape& shape, std::size_t kept)
      : ShapedRows(source, shape, kept) {}

 protected:
  bool compute(std::size_t y, std::uint64_t* out) override;
};

/// Whether any bit is set.
bool any_set(const std::uint64_t* words, std::size_t count);

}  // namespace nvo
