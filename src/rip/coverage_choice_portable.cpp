#include "rip/coverage_kernels.h"

namespace nvo {

const CoverageKernels& coverage_kernels() {
  return kPlainCoverageKernels;
}

}  // namespace nvo
