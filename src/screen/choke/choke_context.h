#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "screen/choke/bit_plane.h"

namespace nvo {

/// A dot outside the colour core that takes the colour of another one.
struct RingDot {
  std::uint32_t x = 0;         ///< column of the dot
  std::uint32_t source_x = 0;  ///< column and row, on the context's grid, of the dot whose colour it takes
  std::uint32_t source_y = 0;
};

/// Masks of the white choke on the device grid of one strip. Planes cover width x height dots; `support`,
/// `keep` and `light` are empty where they do not apply. The ring dots of row y, by ascending column, are
/// `ring[ring_rows[y]]` up to `ring[ring_rows[y + 1]]`; `ring_rows` is empty when nothing grew.
struct ChokeContext {
  std::uint32_t width = 0, height = 0;  ///< device dots
  float radius_in = 0.0f;
  float radius_px_x = 0.0f, radius_px_y = 0.0f;  ///< device dots
  bool adaptive = false;
  std::uint32_t min_width_dots = 0;
  bool protect_light = false;
  float lightness_threshold = 0.0f;  ///< 0..100
  BitPlane colour_core;              ///< the dot has colour
  BitPlane exempt;                   ///< the dot carries an explicit white; empty when no dot does
  BitPlane grown;                    ///< colour core and the ring around it
  BitPlane support;                  ///< adaptive: white may stand here at all
  BitPlane keep;                     ///< adaptive: white survives here
  BitPlane light;                    ///< adaptive with light protection: a light area
  std::vector<RingDot> ring;
  std::vector<std::size_t> ring_rows;

  std::span<const RingDot> ring_of_row(std::size_t y) const {
    if (ring_rows.empty()) return {};
    return {ring.data() + ring_rows[y], ring_rows[y + 1] - ring_rows[y]};
  }
};

}  // namespace nvo
