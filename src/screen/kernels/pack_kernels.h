#pragma once

#include <cstdint>

namespace nvo {

/// Packs rows of drop levels, see `pack_row` in screen/packed_dots.h, for one instruction set. All give the
/// same bytes.
struct PackKernels {
  void (*pack_row)(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out);
};

}  // namespace nvo
