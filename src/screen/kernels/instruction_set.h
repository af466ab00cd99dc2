#pragma once

#include <span>

#include "screen/kernels/bit_row_kernels.h"
#include "screen/kernels/coverage_kernels.h"
#include "screen/kernels/pack_kernels.h"
#include "screen/kernels/ring_kernels.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {

/// The kernels of all families for one instruction set. Those of every set give the same bytes.
struct InstructionSet {
  const char* name;  ///< "scalar", "sse41", "avx2"
  ScreeningKernels screening;
  BitRowKernels bit_rows;
  RingKernels ring;
  CoverageKernels coverage;
  PackKernels packing;
};

/// The sets that this machine runs: first the scalar one, which every machine does, last the fastest.
std::span<const InstructionSet* const> runnable_instruction_sets();

/// The one set that the whole process works with: the fastest, unless a test forces another. For any thread.
const InstructionSet& active_instruction_set();

/// Makes the process work with another set for as long as the object lives. For tests and benchmarks; no
/// other thread may screen while one is made or ends.
class ForcedInstructionSet {
 public:
  explicit ForcedInstructionSet(const InstructionSet& set);
  ~ForcedInstructionSet();
  ForcedInstructionSet(const ForcedInstructionSet&) = delete;
  ForcedInstructionSet& operator=(const ForcedInstructionSet&) = delete;

 private:
  const InstructionSet* before_;
};

}  // namespace nvo
