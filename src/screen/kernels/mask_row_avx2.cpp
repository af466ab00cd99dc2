// Compiled alone with -mavx2.
#include "screen/kernels/mask_row_kernels.h"
#include "screen/kernels/mask_row_steps.h"

namespace nvo {

using namespace mask_row_steps;

const MaskRowKernels kAvx2MaskRowKernels = {combine_rows<And>, combine_rows<Or>, combine_columns<And>,
                                            combine_columns<Or>};

}  // namespace nvo
