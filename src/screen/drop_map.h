#pragma once

#include <cstdint>
#include <vector>

namespace nvo {

/// Screened dots of one channel: height rows of width bytes, each a drop level 0 to 3. No rows is legal and
/// means that the strip holds nothing.
struct DropMap {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> data;

  bool empty() const { return height == 0 || data.empty(); }
};

inline constexpr std::uint64_t kMaxDropMapBytes = 0x80000000;

/// Bytes of a map of this size. Throws `length_error` above 64 bits or above 2 GiB.
std::uint64_t checked_drop_map_bytes(std::uint64_t width, std::uint64_t height);

enum class DropMapContents { zero, stale };

/// Gives a map another size for a writer that sets every dot: memory it already holds is kept with its old
/// contents (`stale`), new memory is zero-filled. Throws as `checked_drop_map_bytes`, leaving the map as it
/// was.
DropMapContents resize_drop_map(DropMap& map, std::uint32_t width, std::uint32_t height);

}  // namespace nvo
