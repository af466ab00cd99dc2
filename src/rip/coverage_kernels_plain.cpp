// Compiled for the machines of the baseline.
#include "rip/coverage_kernels.h"
#include "rip/coverage_steps.h"

namespace nvo {

const CoverageKernels kPlainCoverageKernels = {coverage_steps::largest, coverage_steps::at_least};

}  // namespace nvo
