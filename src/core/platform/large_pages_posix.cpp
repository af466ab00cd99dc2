#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

#include "core/platform/large_pages.h"

namespace nvo::platform {

void prefer_large_pages(void* memory, std::size_t size) noexcept {
#ifdef MADV_HUGEPAGE
  constexpr std::size_t kWorthIt = std::size_t{2} << 20;  // a large page of most machines
  if (size < kWorthIt) return;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto begin = (reinterpret_cast<std::uintptr_t>(memory) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(memory) + size) / page * page;
  if (begin < end) static_cast<void>(::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE));
#else
  static_cast<void>(memory), static_cast<void>(size);
#endif
}

}  // namespace nvo::platform
