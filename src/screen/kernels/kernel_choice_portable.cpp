#include "screen/kernels/mask_row_kernels.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {

const ScreeningKernels* kernels_for(InstructionSet set) {
  return set == InstructionSet::scalar ? &kScalarKernels : nullptr;
}

const ScreeningKernels& best_kernels() {
  return kScalarKernels;
}

const MaskRowKernels& mask_row_kernels() {
  return kPlainMaskRowKernels;
}

}  // namespace nvo
