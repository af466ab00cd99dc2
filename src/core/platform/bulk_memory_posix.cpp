#include <algorithm>

#include "core/platform/bulk_file.h"
#include "core/platform/large_pages.h"

namespace nvo::platform {

void ReleaseBulk::operator()(std::uint8_t* memory) const {
  release_large(memory, size);
}

BulkMemory allocate_bulk(std::size_t size) {
  size = std::max(size, kBulkBlock);
  return BulkMemory(static_cast<std::uint8_t*>(allocate_large(size)), ReleaseBulk{size});
}

}  // namespace nvo::platform
