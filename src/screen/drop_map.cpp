#include "screen/drop_map.h"

#include <stdexcept>

#include "core/checked.h"

namespace nvo {

std::uint64_t checked_drop_map_bytes(std::uint64_t width, std::uint64_t height) {
  const auto bytes = checked_product(width, height);
  if (!bytes) throw std::length_error("DropMap: allocation size overflow");
  if (*bytes > kMaxDropMapBytes) throw std::length_error("DropMap: allocation exceeds 2 GiB cap");
  return *bytes;
}

DropMapContents resize_drop_map(DropMap& map, std::uint32_t width, std::uint32_t height) {
  const std::uint64_t bytes = checked_drop_map_bytes(width, height);
  const bool reuse = bytes <= map.data.capacity();
  // Fresh memory costs a page fault every few kilobytes, old contents would only be copied along.
  if (reuse) {
    map.data.resize(bytes);
  } else {
    map.data = std::vector<std::uint8_t>(bytes);
  }
  map.width = width;
  map.height = height;
  return reuse ? DropMapContents::stale : DropMapContents::zero;
}

}  // namespace nvo
