#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>

#include "config/print_modes.h"
#include "core/large_vector.h"
#include "core/plane_view.h"

namespace nvo {

/// One byte a pixel, row after row without gaps.
using Plane = LargeVector<std::uint8_t>;

/// A band of the sheet on the source grid. The planes are ink amounts (0 none, 255 full) in the order C, M,
/// Y, K, W. `explicit_white` is 255 where the item that wrote the pixel carries a white channel of its own.
/// All six are whole: `height` rows of `width` bytes.
struct StripBuffer {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t y = 0;  ///< first sheet row
  std::uint32_t channel_count = kChannelCount;
  std::array<Plane, kChannelCount> planes;
  Plane explicit_white;

  std::size_t pixels() const { return std::size_t{width} * height; }
  PlaneView ink(std::size_t channel) const { return view<PlaneView>(planes[channel]); }
  MutablePlaneView ink(std::size_t channel) { return view<MutablePlaneView>(planes[channel]); }
  PlaneView explicit_view() const { return view<PlaneView>(explicit_white); }
  MutablePlaneView explicit_view() { return view<MutablePlaneView>(explicit_white); }
  /// The six planes, the mark of explicit white last.
  std::array<Plane*, kChannelCount + 1> all_planes() {
    return {&planes[0], &planes[1], &planes[2], &planes[3], &planes[4], &explicit_white};
  }

 private:
  template <class View>
  View view(auto& plane) const {
    assert(plane.size() == pixels());
    return {plane.data(), width, height};
  }
};

}  // namespace nvo
