#pragma once

#include <cstddef>
#include <cstdint>

#include "core/plane_view.h"

namespace nvo {

/// The four colour planes of a strip, all of one size: 0 no ink, 255 full.
struct ColourPlanes {
  PlaneView c, m, y, k;
};

/// Largest of the four inks of each pixel of row `y`.
void colour_coverage(const ColourPlanes& planes, std::size_t y, std::uint8_t* out);

/// CIE lightness L* (0..100) of printed colour of relative luminance `luminance` (0..1), in f32.
float printed_lightness(float luminance);

/// 255 where the printed colour of a pixel is at least as light as a threshold, else 0.
class LightProtection {
 public:
  /// `threshold` is a lightness, 0..100.
  explicit LightProtection(float threshold);
  /// The pixels of row `y`.
  void protect(const ColourPlanes& planes, std::size_t y, std::uint8_t* out) const;

 private:
  float threshold_;
  float least_luminance_;  ///< the least luminance that passes, where `by_luminance_` holds
  bool by_luminance_;
};

}  // namespace nvo
