#include "screen/kernels/instruction_set.h"

#include <atomic>
#include <vector>

namespace nvo {

// CMake writes the table of instruction sets from the rows in src/screen/CMakeLists.txt: for each one
// NVO_INSTRUCTION_SET(name, whether the machine runs it), slowest first.
#define NVO_INSTRUCTION_SET(name, runs) extern const InstructionSet name;
namespace instruction_sets {
#include "screen/kernels/instruction_set_table.inc"
}
#undef NVO_INSTRUCTION_SET

namespace {

std::vector<const InstructionSet*> find_runnable() {
  std::vector<const InstructionSet*> sets;
#define NVO_INSTRUCTION_SET(name, runs) \
  if (runs) sets.push_back(&instruction_sets::name);
#include "screen/kernels/instruction_set_table.inc"
#undef NVO_INSTRUCTION_SET
  return sets;
}

std::atomic<const InstructionSet*>& active() {
  static std::atomic<const InstructionSet*> set{runnable_instruction_sets().back()};
  return set;
}

}  // namespace

std::span<const InstructionSet* const> runnable_instruction_sets() {
  static const std::vector<const InstructionSet*> sets = find_runnable();
  return sets;
}

const InstructionSet& active_instruction_set() {
  return *active().load(std::memory_order_relaxed);
}

ForcedInstructionSet::ForcedInstructionSet(const InstructionSet& set) : before_(active().exchange(&set)) {}

ForcedInstructionSet::~ForcedInstructionSet() {
  active() = before_;
}

}  // namespace nvo
