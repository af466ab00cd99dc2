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

/// Mean drop level over a pixel as a share of the fullest level, 0 to 1, by channel code.
using InkAmount = std::array<float, kChannelCount>;

/// How printed film looks: white drops hide the film as far as they cover it, the colour inks filter the
/// light that comes back, one after the other. A colour ink spreads, so that its tone is ahead of its amount;
/// how far is what the standard ink curves make up for, and their inverse tells the tone here. Tones filter
/// evenly as the eye sees them (sRGB); light adds up in linear sRGB.
class InkModel {
 public:
  explicit InkModel(Rgb8 film);
  Rgb8 color(const InkAmount& amount) const;
  /// The drops of one ink by themselves, black on white.
  Rgb8 grey(float amount) const;

 private:
  static constexpr std::size_t kColorInks = 4;
  static constexpr std::size_t kAmountSteps = 1024;
  using Filter = std::array<float, 3>;  ///< linear transmittance, red, green, blue

  std::array<float, 3> film_;
  std::array<std::vector<Filter>, kColorInks> filters_;  ///< by amount
  std::vector<std::uint8_t> srgb_of_linear_;
};

}  // namespace nvo
