#include "screen/column_taps.h"

#include <algorithm>
#include <cmath>

namespace nvo {
namespace {

constexpr std::uint32_t kMaxPairPixel = 0x3fffffff;  ///< its codes have 32-bit indices

/// The stretch of the source row below one device column.
struct ColumnSpan {
  float begin = 0.0f, end = 0.0f;
  std::uint32_t start = 0, count = 0;  ///< source columns it touches
};

ColumnSpan span_of_column(std::uint32_t x, std::uint32_t src_w, float scale_x) {
  const float width = static_cast<float>(src_w);
  ColumnSpan span;
  span.begin = std::clamp(static_cast<float>(x) * scale_x, 0.0f, width);
  span.end = std::clamp(static_cast<float>(x + 1) * scale_x, 0.0f, width);
  if (!(span.end > span.begin)) return span;
  const auto stop = std::min<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(span.end)), src_w);
  const auto start = std::min<std::uint64_t>(static_cast<std::uint64_t>(std::floor(span.begin)), stop);
  span.start = static_cast<std::uint32_t>(start);
  span.count = static_cast<std::uint32_t>(stop - start);
  return span;
}

/// Not usable where columns do not fit the form.
ColumnPairs build_pairs(std::uint32_t src_w, const std::vector<ColumnSpan>& spans) {
  ColumnPairs pairs;
  pairs.left.resize(src_w + kPixelPadding);
  pairs.right.resize(src_w + kPixelPadding);
  std::vector<bool> taken(src_w);
  std::vector<std::int32_t> column;
  for (const ColumnSpan& span : spans) {
    const std::uint32_t i = span.start;
    if (span.count == 0) {
      column.push_back(-1);
      continue;
    }
    const float left = area_weight(span.begin, span.end, i);
    if (span.count > 2 || (span.count == 1 && left != 1.0f) || i > kMaxPairPixel) return {};
    column.push_back(static_cast<std::int32_t>(2 * i + (span.count - 1)));
    if (span.count == 1) continue;
    const float right = area_weight(span.begin, span.end, i + 1);
    if (taken[i] && (pairs.left[i] != left || pairs.right[i] != right)) return {};
    taken[i] = true;
    pairs.left[i] = left;
    pairs.right[i] = right;
  }
  pairs.gather = build_code_gather(column);
  return pairs;
}

}  // namespace

ColumnTaps build_column_taps(std::uint32_t src_w, std::uint32_t dev_w, float scale_x) {
  ColumnTaps table;
  table.src_w = src_w;
  table.dev_w = dev_w;
  table.start.resize(dev_w);
  std::vector<ColumnSpan> spans(dev_w);
  for (std::uint32_t x = 0; x < dev_w; ++x) {
    const ColumnSpan& span = spans[x] = span_of_column(x, src_w, scale_x);
    const std::int32_t previous = x > 0 ? table.start[x - 1] : 0;
    table.start[x] = span.count > 0 ? static_cast<std::int32_t>(span.start) : previous;
    table.taps = std::max(table.taps, span.count);
  }
  for (std::size_t x = 0; x + 8 <= dev_w; x += 8)
    table.reach = std::max(table.reach, table.start[x + 7] - table.start[x]);

  table.weights.resize(std::size_t{table.taps} * dev_w);
  for (std::uint32_t x = 0; x < dev_w; ++x)
    for (std::uint32_t k = 0; k < spans[x].count; ++k)
      table.weights[std::size_t{k} * dev_w + x] =
          area_weight(spans[x].begin, spans[x].end, spans[x].start + k);
  table.pairs = build_pairs(src_w, spans);
  return table;
}

}  // namespace nvo
