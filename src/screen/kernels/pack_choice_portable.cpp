#include <array>

#include "screen/kernels/pack_kernels.h"

namespace nvo {

std::span<const PackVariant> pack_variants() {
  static constexpr std::array<PackVariant, 1> all = {{{"portable", pack_row_portable}}};
  return all;
}

}  // namespace nvo
