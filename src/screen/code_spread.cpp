#include "screen/code_spread.h"

#include <algorithm>

namespace nvo {

CodeSpread build_code_spread(std::span<const std::int32_t> column) {
  CodeSpread spread;
  const std::size_t groups = (column.size() + kSpreadGroup - 1) / kSpreadGroup;
  spread.first.resize(groups);
  spread.offset.assign(groups * kSpreadGroup, kNoCode);
  for (std::size_t group = 0; group < groups; ++group) {
    const std::size_t begin = group * kSpreadGroup;
    const auto columns = column.subspan(begin, std::min(kSpreadGroup, column.size() - begin));
    std::int32_t least = -1;
    for (const std::int32_t code : columns)
      if (code >= 0 && (least < 0 || code < least)) least = code;
    spread.first[group] = std::max(least, 0);
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (columns[i] < 0) continue;
      const std::int32_t offset = columns[i] - least;
      if (offset >= kSpreadReach) return {};
      spread.offset[begin + i] = static_cast<std::uint8_t>(offset);
    }
  }
  return spread;
}

}  // namespace nvo
