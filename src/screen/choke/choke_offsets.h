#pragma once

#include <cstdint>
#include <vector>

namespace nvo {

/// A displacement within the reach of the white choke.
struct ChokeOffset {
  std::int32_t dx = 0, dy = 0;  ///< device dots
  double distance = 0.0;        ///< octile, in inches
  std::uint32_t group = 0;      ///< offsets of one group count as equally far; counts up from 0
};

/// All displacements up to `radius_in` inches on a grid of `x_dpi` by `y_dpi` dots, (0, 0) included: nearest
/// group first, within a group by dy, then by dx. Distances are octile: diagonal steps, then straight ones
/// along the longer axis. A group reaches 1e-7 in beyond its nearest member and is in or out as a whole.
std::vector<ChokeOffset> choke_offsets(std::uint32_t x_dpi, std::uint32_t y_dpi, float radius_in);

}  // namespace nvo
