#pragma once

#include <cstdint>
#include <vector>

#include "screen/choke/choke_context.h"
#include "screen/choke/device_choke.h"
#include "screen/device_grid.h"

namespace nvo {

/// Which row of a strip each of its device rows samples.
struct ChokeRowMap {
  std::vector<std::uint32_t> source;
  std::vector<std::uint32_t> first_equal;  ///< first of the adjoining device rows that sample the same row
  std::vector<std::uint32_t> first_rows;   ///< all such first rows
  BitPlane::RowTable group;                ///< for each device row the index of its first one among these

  /// `rows` are the strip's on a device grid of `dev_h` rows.
  ChokeRowMap(const DeviceChokeInput& input, std::uint32_t dev_h, DeviceRows rows);
};

/// Fills the masks that come straight from the source grid: colour core, exempt, support and light. Size and
/// settings of `context` must be set.
void sample_choke_masks(const DeviceChokeInput& input, const ChokeRowMap& row_map, std::uint32_t threads,
                        ChokeContext& context);

}  // namespace nvo
