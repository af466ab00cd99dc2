#include <array>

#include "screen/kernels/pack_kernels.h"

namespace nvo {

std::span<const PackVariant> pack_variants() {
  static constexpr std::array<PackVariant, 2> all = {
      {{"portable", pack_row_portable}, {"avx2", pack_row_avx2}}};
  return std::span(all).first(__builtin_cpu_supports("avx2") ? 2 : 1);
}

}  // namespace nvo
