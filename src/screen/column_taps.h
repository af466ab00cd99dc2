#pragma once

#include <cstdint>
#include <vector>

#include "screen/code_gather.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {

/// The filter of `ColumnTaps` where every device column lies in one source pixel, or on two neighbours of
/// which no other column's mean is taken. A column inside one pixel has the weight 1 exactly, so its code is
/// that of the pixel; the others are as many as there are pixels at most, and are worked out side by side.
struct ColumnPairs {
  std::vector<float> left, right;  ///< see `PairWeights`; one a source pixel and padding
  CodeGather gather;               ///< from the codes of pixels and pairs to device columns

  bool usable() const { return gather.usable(); }
  PairWeights weights() const { return {left.data(), right.data()}; }
};

/// The horizontal half of the area filter: which source columns each device column covers, and by what share.
/// Stored as one plane of weights a tap, so that a kernel reads the weights of neighbouring columns together.
struct ColumnTaps {
  std::uint32_t src_w = 0, dev_w = 0;  ///< the widths it was built for
  std::uint32_t taps = 0;              ///< most source columns that a device column covers
  std::int32_t reach = 0;              ///< see `ColumnTapsView`
  std::vector<std::int32_t> start;     ///< ascending; a column that covers nothing repeats its neighbour's
  std::vector<float> weights;          ///< `taps` x `dev_w`
  ColumnPairs pairs;                   ///< not usable for coarser device grids

  ColumnTapsView view() const { return {start.data(), weights.data(), start.size(), taps, reach}; }
};

/// `scale_x` is in source columns per device column.
ColumnTaps build_column_taps(std::uint32_t src_w, std::uint32_t dev_w, float scale_x);

/// Share of source index `s` in the span `begin`..`end` (f32, in this order).
inline float area_weight(float begin, float end, std::uint32_t s) {
  const float low = static_cast<float>(s), high = static_cast<float>(s + 1);
  const float covered = (end < high ? end : high) - (begin > low ? begin : low);
  return (covered > 0.0f ? covered : 0.0f) / (end - begin);
}

}  // namespace nvo
