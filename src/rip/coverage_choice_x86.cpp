#include "rip/coverage_kernels.h"

namespace nvo {

const CoverageKernels& coverage_kernels() {
  return __builtin_cpu_supports("avx2") ? kAvx2CoverageKernels : kPlainCoverageKernels;
}

}  // namespace nvo
