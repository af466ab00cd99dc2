#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "screen/drop_map.h"

namespace nvo::test {

/// Levels that look random and differ by seed; the high bits are set too, since a reader must not look at
/// them.
inline DropMap make_drops(std::uint32_t width, std::uint32_t height, std::uint32_t seed) {
  DropMap map{width, height, std::vector<std::uint8_t>(std::size_t{width} * height)};
  std::uint32_t state = seed * 2654435761u + 1;
  for (std::uint8_t& dot : map.data) {
    state = state * 1664525u + 1013904223u;
    dot = static_cast<std::uint8_t>(state >> 24);
  }
  return map;
}

inline std::vector<DropMap> make_channels(std::uint32_t width, std::uint32_t height, std::uint32_t count) {
  std::vector<DropMap> maps;
  for (std::uint32_t channel = 0; channel < count; ++channel)
    maps.push_back(make_drops(width, height, channel));
  return maps;
}

/// Rows `begin` to `end` of every map.
inline std::vector<DropMap> cut_rows(const std::vector<DropMap>& maps, std::uint32_t begin,
                                     std::uint32_t end) {
  std::vector<DropMap> cut;
  for (const DropMap& map : maps) {
    if (map.empty()) {
      cut.emplace_back();
      continue;
    }
    const auto first = map.data.begin() + std::ptrdiff_t{begin} * map.width;
    cut.push_back({map.width, end - begin, {first, first + std::ptrdiff_t{end - begin} * map.width}});
  }
  return cut;
}

}  // namespace nvo::test
