#pragma once

#include <cstdint>
#include <vector>

#include "core/large_vector.h"

namespace nvo {

/// One byte a pixel, row after row without gaps.
using Plane = LargeVector<std::uint8_t>;

/// A band of the sheet on the source grid. The planes are ink amounts (0 none, 255 full) in the order C, M,
/// Y, K, W, each `height` rows of `width` bytes. `explicit_white` is 255 where the item that wrote the pixel
/// carries a white channel of its own.
struct StripBuffer {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t y = 0;  ///< first sheet row
  std::uint32_t channel_count = 0;
  std::vector<Plane> planes;
  Plane explicit_white;
};

}  // namespace nvo
