#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "screen/kernels/screening_kernels.h"

namespace nvo {

/// Which source code each device column takes, as `gather_codes` reads it. Empty where a group of columns
/// reaches further than a kernel picks.
struct CodeGather {
  std::vector<std::int32_t> first;  ///< one a group of `kGatherGroup` columns
  std::vector<std::uint8_t> offset;

  bool usable() const { return !first.empty(); }
  CodeGatherView view() const { return {first.data(), offset.data(), first.size()}; }
};

/// `column[x]` is the code that device column x takes; negative where it takes none and stays without ink.
CodeGather build_code_gather(std::span<const std::int32_t> column);

}  // namespace nvo
