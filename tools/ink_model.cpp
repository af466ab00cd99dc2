#include "tools/ink_model.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "config/rip_settings.h"

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

double linear_of_srgb(double byte) {
  const double v = byte / 255.0;
  return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

std::uint8_t srgb_of_linear(double v) {
  const double encoded = v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
  return static_cast<std::uint8_t>(encoded * 255.0 + 0.5);
}

std::array<float, 3> linear(Rgb8 color) {
  return {static_cast<float>(linear_of_srgb(color.r)), static_cast<float>(linear_of_srgb(color.g)),
          static_cast<float>(linear_of_srgb(color.b))};
}

/// Tone, 0 to 1, that an ink prints with a share `amount` of its fullest drops: where the curve, which rises,
/// reaches it.
double tone_of(const std::vector<float>& curve, double amount) {
  const double ink = amount * 255.0;
  const auto above = std::lower_bound(curve.begin(), curve.end(), ink);
  if (above == curve.begin()) return 0.0;
  if (above == curve.end()) return 1.0;
  const double high = *above, low = *(above - 1);
  const double byte = static_cast<double>(above - curve.begin()) - (high - ink) / (high - low);
  return byte / 255.0;
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

  const auto standard_curves = channel_curves(RipSettings());
  for (std::size_t ink = 0; ink < kColorInks; ++ink) {
    const std::array<std::uint8_t, 3> solid = {kSolidInks[ink].r, kSolidInks[ink].g, kSolidInks[ink].b};
    for (std::size_t step = 0; step <= kAmountSteps; ++step) {
      const double tone = tone_of(standard_curves[ink], static_cast<double>(step) / kAmountSteps);
      Filter& filter = filters_[ink].emplace_back();
      for (std::size_t i = 0; i < filter.size(); ++i)
        filter[i] = static_cast<float>(linear_of_srgb(255.0 - tone * (255.0 - solid[i])));
    }
  }
}

Rgb8 InkModel::color(const InkAmount& amount) const {
  std::array<float, 3> light{};
  for (std::size_t i = 0; i < light.size(); ++i)
    light[i] = film_[i] + (1.0f - film_[i]) * std::min(amount[kChannelW], 1.0f);
  for (std::size_t ink = 0; ink < kColorInks; ++ink) {
    const float step = std::min(amount[ink], 1.0f) * static_cast<float>(kAmountSteps) + 0.5f;
    const Filter& filter = filters_[ink][static_cast<std::size_t>(step)];
    for (std::size_t i = 0; i < light.size(); ++i) light[i] *= filter[i];
  }
  std::array<std::uint8_t, 3> rgb{};
  for (std::size_t i = 0; i < rgb.size(); ++i)
    rgb[i] = srgb_of_linear_[static_cast<std::size_t>(light[i] * kLinearSteps + 0.5f)];
  return {rgb[0], rgb[1], rgb[2]};
}

Rgb8 InkModel::grey(float amount) const {
  const float light = 1.0f - std::min(amount, 1.0f);
  const std::uint8_t value = srgb_of_linear_[static_cast<std::size_t>(light * kLinearSteps + 0.5f)];
  return {value, value, value};
}

}  // namespace nvo
