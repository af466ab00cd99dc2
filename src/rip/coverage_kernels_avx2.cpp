// Compiled alone with -mavx2, and without -mfma: a fused product would round differently.
#include "rip/coverage_kernels.h"
#include "rip/coverage_steps.h"

namespace nvo {

const CoverageKernels kAvx2CoverageKernels = {coverage_steps::largest, coverage_steps::at_least};

}  // namespace nvo
