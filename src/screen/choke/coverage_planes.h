#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// The four colour planes of a strip, `count` bytes each: 0 no ink, 255 full.
struct ColourPlanes {
  const std::uint8_t* c = nullptr;
  const std::uint8_t* m = nullptr;
  const std::uint8_t* y = nullptr;
  const std::uint8_t* k = nullptr;
  std::size_t count = 0;

  /// Pixels `begin` .. `begin + pixels - 1`.
  ColourPlanes part(std::size_t begin, std::size_t pixels) const {
    return {c + begin, m + begin, y + begin, k + begin, pixels};
  }
};

/// Largest of the four inks of each pixel.
void colour_coverage(const ColourPlanes& planes, std::uint8_t* out);

/// CIE lightness L* (0..100) of printed colour of relative luminance `luminance` (0..1), in f32.
float printed_lightness(float luminance);

/// 255 where the printed colour of a pixel is at least as light as a threshold, else 0.
class LightProtection {
 public:
  /// `threshold` is a lightness, 0..100.
  explicit LightProtection(float threshold);
  void protect(const ColourPlanes& planes, std::uint8_t* out) const;

 private:
  float threshold_;
  float least_luminance_;  ///< the least luminance that passes, where `by_luminance_` holds
  bool by_luminance_;
};

}  // namespace nvo
