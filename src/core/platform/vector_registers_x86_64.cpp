#include <immintrin.h>

#include "core/platform/vector_registers.h"

namespace nvo::platform {
namespace {

const bool kHasWideRegisters = __builtin_cpu_supports("avx");

[[gnu::target("avx")]] void clear() noexcept {
  _mm256_zeroupper();
}

}  // namespace

void clear_upper_registers() noexcept {
  if (kHasWideRegisters) clear();
}

}  // namespace nvo::platform
