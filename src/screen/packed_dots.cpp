#include "screen/packed_dots.h"

#include "screen/kernels/pack_kernels.h"

namespace nvo {

void pack_row(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  static const PackRow pack = pack_variants().back().pack;
  pack(dots, width, out);
}

}  // namespace nvo
