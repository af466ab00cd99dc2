#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/prt_reader.h"

namespace nvo {

/// Dots of one slot by drop level.
using LevelCounts = std::array<std::uint64_t, 4>;

struct PrtInfo {
  std::string path;
  PrtHeader header;
  HeadConfig head;
  std::vector<std::uint32_t> slot_map;  ///< a channel code for each slot
  std::vector<LevelCounts> slots;
};

/// Reads the whole file, a few megabytes at a time.
PrtInfo collect_info(PrtReader& reader, std::vector<std::uint32_t> slot_map);

std::string info_text(const PrtInfo& info);
std::string info_json(const PrtInfo& info);

}  // namespace nvo
