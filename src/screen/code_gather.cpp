#include "screen/code_gather.h"

#include <algorithm>

namespace nvo {

CodeGather build_code_gather(std::span<const std::int32_t> column) {
  CodeGather gather;
  const std::size_t groups = (column.size() + kGatherGroup - 1) / kGatherGroup;
  gather.first.resize(groups);
  gather.offset.assign(groups * kGatherGroup, kNoCode);
  for (std::size_t group = 0; group < groups; ++group) {
    const std::size_t begin = group * kGatherGroup;
    const auto columns = column.subspan(begin, std::min(kGatherGroup, column.size() - begin));
    std::int32_t least = -1;
    for (const std::int32_t code : columns)
      if (code >= 0 && (least < 0 || code < least)) least = code;
    gather.first[group] = std::max(least, 0);
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (columns[i] < 0) continue;
      const std::int32_t offset = columns[i] - least;
      if (offset >= kGatherReach) return {};
      gather.offset[begin + i] = static_cast<std::uint8_t>(offset);
    }
  }
  return gather;
}

}  // namespace nvo
