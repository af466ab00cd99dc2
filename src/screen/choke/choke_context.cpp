#include "screen/choke/choke_context.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace nvo {

bool ColourRingRows::empty() const {
  return std::ranges::all_of(panels, [](const auto& panel) { return panel.empty(); });
}

std::span<const std::uint32_t> ColourRingRows::places(std::size_t y) const {
  if (row_ends.empty()) return {};
  const std::uint32_t begin = y % kPanelRows == 0 ? 0 : row_ends[y - 1];
  return std::span(panels[y / kPanelRows]).subspan(begin, row_ends[y] - begin);
}

void ColourRingRows::lay_out(std::uint32_t grid_width, std::uint32_t rows_in_reach) {
  constexpr std::uint32_t kStep = 128;
  const std::size_t rows = code_row.size();
  reach = static_cast<std::uint32_t>(std::min<std::size_t>(rows_in_reach, rows));
  code_rows = 1;
  for (std::size_t y = 0; y < rows; ++y)
    code_rows =
        std::max(code_rows, code_row[std::min(y + 2 * std::size_t{reach}, rows - 1)] - code_row[y] + 1);
  slot.resize(rows);
  std::ranges::transform(code_row, slot.begin(), [this](std::uint32_t number) { return number % code_rows; });
  const std::uint64_t length = (std::uint64_t{grid_width} + kStep - 1) / kStep * kStep;
  if (length * code_rows > std::numeric_limits<std::uint32_t>::max())
    throw std::length_error("choke: the rows in reach are too many dots");
  stride = static_cast<std::uint32_t>(length);
}

std::vector<RingDot> ChokeContext::ring_of_row(std::size_t y) const {
  std::vector<RingDot> dots;
  if (ring.row_ends.empty()) return dots;
  std::vector<RingDot> latest(width);
  for (std::size_t row = y - y % ColourRingRows::kPanelRows; row <= y; ++row) {
    ring.for_each_change(row, [&](std::size_t x, std::uint32_t place) {
      std::size_t source = row - std::min<std::size_t>(row, ring.reach);
      while (ring.place(source) != place - place % ring.stride) ++source;
      latest[x] = {static_cast<std::uint32_t>(x), place % ring.stride, static_cast<std::uint32_t>(source)};
    });
  }
  for (std::uint32_t x = 0; x < width; ++x)
    if (grown.test(x, y) && !colour_core.test(x, y)) dots.push_back(latest[x]);
  return dots;
}

}  // namespace nvo
