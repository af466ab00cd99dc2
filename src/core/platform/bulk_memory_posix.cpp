#include <new>

#include <sys/mman.h>

#include "core/platform/bulk_file.h"
#include "core/platform/large_pages.h"

namespace nvo::platform {

void ReleaseBulk::operator()(std::uint8_t* memory) const {
  ::munmap(memory, size);
}

BulkMemory allocate_bulk(std::size_t size) {
  if (size == 0) size = kBulkBlock;
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  prefer_large_pages(memory, size);
  return BulkMemory(static_cast<std::uint8_t*>(memory), ReleaseBulk{size});
}

}  // namespace nvo::platform
