#pragma once

#include <cstdint>
#include <vector>

namespace nvo {

/// A band of the sheet on the source grid. The planes are ink amounts (0 none, 255 full) in the order C, M,
/// Y, K, W, each `height` rows of `width` bytes. `explicit_white` is 255 where the item that wrote the pixel
/// carries a white channel of its own.
struct StripBuffer {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t y = 0;  ///< first sheet row
  std::uint32_t channel_count = 0;
  std::vector<std::vector<std::uint8_t>> planes;
  std::vector<std::uint8_t> explicit_white;
};

}  // namespace nvo
