#include "core/platform/vector_registers.h"

namespace nvo::platform {

/// Other processors have no such halves.
void clear_upper_registers() noexcept {}

}  // namespace nvo::platform
