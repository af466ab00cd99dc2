#include "tools/ink_model.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace nvo {
namespace {

struct NamedColor {
  std::string_view name;
  Rgb8 color;
};

constexpr NamedColor kNamedColors[] = {
    {"black", {0x10, 0x10, 0x10}}, {"white", {0xFF, 0xFF, 0xFF}},  {"grey", {0x80, 0x80, 0x80}},
    {"red", {0xB0, 0x1E, 0x28}},   {"green", {0x1F, 0x6B, 0x3A}},  {"blue", {0x1F, 0x4E, 0x9E}},
    {"navy", {0x1B, 0x25, 0x45}},  {"yellow", {0xF2, 0xC8, 0x1E}}, {"sand", {0xD8, 0xC8, 0xA8}},
};

// Solid process inks on white, as sRGB.
constexpr std::array<Rgb8, 4> kSolidInks = {{
    {0x00, 0x9F, 0xE3},  // C
    {0xE5, 0x00, 0x7E},  // M
    {0xFF, 0xED, 0x00},  // Y
    {0x1D, 0x1D, 0x1B},  // K
}};

constexpr std::size_t kLinearSteps = 4096;  // the steepest 8-bit step of the sRGB curve is 1.2 of these wide

float linear_of_srgb(std::uint8_t value) {
  const double v = value / 255.0;
  return static_cast<float>(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
}

std::uint8_t srgb_of_linear(double v) {
  const double encoded = v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
  return static_cast<std::uint8_t>(encoded * 255.0 + 0.5);
}

std::array<float, 3> linear(Rgb8 color) {
  return {linear_of_srgb(color.r), linear_of_srgb(color.g), linear_of_srgb(color.b)};
}

const std::array<std::array<float, 3>, 4>& ink_transmittances() {
  static const auto table = [] {
    std::array<std::array<float, 3>, 4> inks;
    std::transform(kSolidInks.begin(), kSolidInks.end(), inks.begin(), linear);
    return inks;
  }();
  return table;
}

int hex_digit(char c) {
  constexpr std::string_view digits = "0123456789abcdef", upper = "0123456789ABCDEF";
  const std::size_t position = std::min(digits.find(c), upper.find(c));
  return position == std::string_view::npos ? -1 : static_cast<int>(position);
}

}  // namespace

Rgb8 parse_color(std::string_view text) {
  for (const NamedColor& named : kNamedColors)
    if (named.name == text) return named.color;
  std::array<std::uint8_t, 3> bytes{};
  bool good = text.size() == 7 && text[0] == '#';
  for (std::size_t i = 0; good && i < bytes.size(); ++i) {
    const int high = hex_digit(text[1 + 2 * i]), low = hex_digit(text[2 + 2 * i]);
    good = high >= 0 && low >= 0;
    bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  if (!good)
    throw std::invalid_argument(std::string(text) + " is no colour: #RRGGBB or one of " + color_names());
  return {bytes[0], bytes[1], bytes[2]};
}

std::string color_names() {
  std::string names;
  for (const NamedColor& named : kNamedColors) names.append(names.empty() ? "" : ", ").append(named.name);
  return names;
}

InkModel::InkModel(Rgb8 film) : film_(linear(film)), srgb_of_linear_(kLinearSteps + 1) {
  for (std::size_t i = 0; i <= kLinearSteps; ++i)
    srgb_of_linear_[i] = srgb_of_linear(static_cast<double>(i) / kLinearSteps);
}

Rgb8 InkModel::color(const InkCoverage& coverage) const {
  std::array<std::uint8_t, 3> rgb{};
  for (std::size_t i = 0; i < rgb.size(); ++i) {
    float light = film_[i] + (1.0f - film_[i]) * coverage[kChannelW];
    for (std::size_t ink = 0; ink < ink_transmittances().size(); ++ink)
      light *= 1.0f - coverage[ink] * (1.0f - ink_transmittances()[ink][i]);
    rgb[i] = srgb_of_linear_[static_cast<std::size_t>(light * kLinearSteps + 0.5f)];
  }
  return {rgb[0], rgb[1], rgb[2]};
}

}  // namespace nvo
