#include "screen/packed_dots.h"

#include "screen/kernels/instruction_set.h"

namespace nvo {

void pack_row(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  active_instruction_set().packing.pack_row(dots, width, out);
}

}  // namespace nvo
