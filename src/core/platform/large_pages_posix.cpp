#include <cstdint>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

#include "core/platform/large_pages.h"

namespace nvo::platform {
namespace {

constexpr std::size_t kLargePage = std::size_t{2} << 20;  ///< of most machines
static_assert(kLargePage % kLargeArea == 0);

std::size_t round_up(std::size_t value, std::size_t unit) {
  return (value + unit - 1) / unit * unit;
}

/// What is mapped for an area: a last large page that is half full is worth having whole.
std::size_t mapped_size(std::size_t size) {
  return size % kLargePage >= kLargePage / 2 ? round_up(size, kLargePage) : size;
}

}  // namespace

void* allocate_large(std::size_t size) {
  // The system places areas where it likes, so one that is larger by a page is cut to begin on a page.
  const auto small_page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  if (size == 0 || size > SIZE_MAX - 2 * kLargePage) throw std::bad_alloc();
  const std::size_t mapped = round_up(mapped_size(size), small_page) + kLargePage;
  void* const area = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) throw std::bad_alloc();
  const auto from = reinterpret_cast<std::uintptr_t>(area);
  const std::uintptr_t begin = round_up(from, kLargePage);
  if (begin != from) static_cast<void>(::munmap(area, begin - from));
  auto* const memory = reinterpret_cast<void*>(begin);
  const std::uintptr_t end = begin + mapped - kLargePage;
  if (end != from + mapped) static_cast<void>(::munmap(reinterpret_cast<void*>(end), from + mapped - end));
  prefer_large_pages(memory, end - begin);
  return memory;
}

void release_large(void* memory, std::size_t size) noexcept {
  static_cast<void>(::munmap(memory, mapped_size(size)));
}

void prefer_large_pages(void* memory, std::size_t size) noexcept {
#ifdef MADV_HUGEPAGE
  if (size < kLargePage) return;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t begin = round_up(reinterpret_cast<std::uintptr_t>(memory), page);
  const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(memory) + size) / page * page;
  if (begin < end) static_cast<void>(::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE));
#else
  static_cast<void>(memory), static_cast<void>(size);
#endif
}

}  // namespace nvo::platform
