#include <initializer_list>

#include "screen/kernels/mask_row_kernels.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {

const ScreeningKernels* kernels_for(InstructionSet set) {
  switch (set) {
    case InstructionSet::avx2:
      return __builtin_cpu_supports("avx2") ? &kAvx2Kernels : nullptr;
    case InstructionSet::sse41:
      return __builtin_cpu_supports("sse4.1") ? &kSse41Kernels : nullptr;
    case InstructionSet::scalar:
      break;
  }
  return &kScalarKernels;
}

const ScreeningKernels& best_kernels() {
  for (const InstructionSet set : {InstructionSet::avx2, InstructionSet::sse41})
    if (const ScreeningKernels* kernels = kernels_for(set)) return *kernels;
  return kScalarKernels;
}

const MaskRowKernels& mask_row_kernels() {
  return __builtin_cpu_supports("avx2") ? kAvx2MaskRowKernels : kPlainMaskRowKernels;
}

}  // namespace nvo
