#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/print_modes.h"

namespace nvo {

struct Rgb8 {
  std::uint8_t r = 0, g = 0, b = 0;
  bool operator==(const Rgb8&) const = default;
};

/// "#RRGGBB" or one of `color_names()`. Throws `invalid_argument` for other texts.
Rgb8 parse_color(std::string_view text);
std::string color_names();

/// Share of a pixel that each ink covers, 0 to 1, by channel code.
using InkCoverage = std::array<float, kChannelCount>;

/// How printed film looks: white ink hides the film as far as it covers it, the others filter the light that
/// comes back. Inks are laid independently of each other (Demichel), so their mean transmittances multiply;
/// all in linear sRGB.
class InkModel {
 public:
  explicit InkModel(Rgb8 film);
  Rgb8 color(const InkCoverage& coverage) const;

 private:
  std::array<float, 3> film_;
  std::vector<std::uint8_t> srgb_of_linear_;
};

}  // namespace nvo
