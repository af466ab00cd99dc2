#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <lcms2.h>

#include "compose/plain_item.h"
#include "image/image_loader.h"
#include "screen/choke/device_choke.h"
#include "screen/plain_coverage.h"
#include "screen/plain_rip_engine.h"

namespace nvo::test {

/// What a print depends on, as plain values: nothing in here comes from a settings record of the program.
struct Knobs {
  HeadConfig head{0, 0};
  std::uint32_t x_dpi = 720, y_dpi = 1800;
  std::vector<std::uint32_t> slots = {3, 0, 1, 2, 4, 4};  ///< ink of each slot, 5 for none
  struct Curve {
    float limit, gamma;
    std::vector<float> lut = {};
  };
  std::array<Curve, kChannelCount> curves = {Curve{220, 1.2f}, Curve{220, 1.2f}, Curve{190, 1.4f},
                                             Curve{150, 1.5f}, Curve{255, 1}};
  bool color_hard = false, white_hard = false, linear_light = true;
  bool limit = false;
  float budget = 300, max_white = 400, min_white = 10;
  bool choke = true, adaptive = true, protect_light = true;
  float amount = 1.5f, lightness = 85;
  std::uint32_t min_width = 3;
  std::string rgb_profile, cmyk_profile, output_profile;  ///< no output profile: the formula
  cmsUInt32Number intent = 1;
  bool bpc = true;
};

/// One image on its sheet at 300 pixels an inch, made into drops by the plainest means: pixel by pixel, dot
/// by dot, the whole sheet at once.
class PlainRoad {
 public:
  PlainRoad(const std::string& art, const Knobs& knobs) : knobs_(knobs), image_(load_image(art)) {
    pad_ = knobs_.choke ? static_cast<std::uint32_t>(std::ceil(knobs_.amount)) : 0;
    compose();
    if (knobs_.limit) limit_white();
    screen();
  }

  /// Drop levels of each slot of the board, rows top down.
  const std::vector<std::vector<std::uint8_t>>& slots() const { return slots_; }

 private:
  static constexpr std::uint32_t kDpi = 300;

  std::uint32_t placed(std::uint32_t pixels, float dpi) const {
    return static_cast<std::uint32_t>(std::ceil(static_cast<float>(pixels) / dpi * kDpi - 0.0001f));
  }

  void compose() {
    strip_.width = placed(image_.width, image_.dpi_x) + 2 * pad_;
    strip_.height = placed(image_.height, image_.dpi_y) + 2 * pad_;
    for (Plane* plane : strip_.all_planes()) plane->assign(pixels(), 0);
    Resampling config;
    config.color_resampling_mode = knobs_.color_hard ? ResamplingMode::hard : ResamplingMode::smooth;
    config.white_resampling_mode = knobs_.white_hard ? ResamplingMode::hard : ResamplingMode::smooth;
    config.color_resampling_linear_light = knobs_.linear_light;
    const ItemPlacement place{pad_, pad_, strip_.width - 2 * pad_, strip_.height - 2 * pad_};
    const auto convert = open_transform();
    PlainItem item(image_, false, config, place, false);
    item.convert_with(convert);
    item.compose({0, place.height}, {0, image_.height}, strip_);
  }

  /// Inks of a pixel through the profiles; empty where the formula, or nothing, takes their place.
  PlainItem::Conversion open_transform() const {
    const bool rgb = image_.is_rgb || !image_.is_cmyk;
    if (knobs_.output_profile.empty() || (!rgb && knobs_.cmyk_profile.empty())) return {};
    const auto open = [](const std::string& path) { return cmsOpenProfileFromFile(path.c_str(), "r"); };
    cmsHPROFILE in = !rgb                         ? open(knobs_.cmyk_profile)
                     : knobs_.rgb_profile.empty() ? cmsCreate_sRGBProfile()
                                                  : open(knobs_.rgb_profile);
    cmsHPROFILE out = open(knobs_.output_profile);
    const std::shared_ptr<void> transform(
        cmsCreateTransform(in, rgb ? TYPE_RGB_8 : TYPE_CMYK_8, out, TYPE_CMYK_8, knobs_.intent,
                           knobs_.bpc ? cmsFLAGS_BLACKPOINTCOMPENSATION : 0),
        cmsDeleteTransform);
    cmsCloseProfile(in);
    cmsCloseProfile(out);
    return [transform](const std::array<std::uint8_t, 4>& samples) {
      std::array<std::uint8_t, 4> inks{};
      cmsDoTransform(transform.get(), samples.data(), inks.data(), 1);
      return inks;
    };
  }

  std::size_t pixels() const { return std::size_t{strip_.width} * strip_.height; }
  std::uint8_t ink(std::size_t channel, std::size_t i) const { return strip_.planes[channel][i]; }
  std::array<std::uint8_t, 4> inks(std::size_t i) const {
    return {ink(0, i), ink(1, i), ink(2, i), ink(3, i)};
  }

  void limit_white() {
    Plane& white = strip_.planes[kChannelW];
    const bool any_partial = std::ranges::any_of(white, [](std::uint8_t w) { return w != 255; });
    for (std::size_t i = 0; i < pixels(); ++i) {
      if (strip_.explicit_white[i] != 0) continue;
      const bool printed = plain_coverage(inks(i).data()) >= 3 || (any_partial && white[i] != 0);
      white[i] = printed ? limited(i) : 0;
    }
  }
  std::uint8_t limited(std::size_t i) const {
    const float coverage = static_cast<float>(ink(4, i)) / 255.0f;
    float used = 0.0f;
    for (const std::size_t channel : {1u, 0u, 2u, 3u})
      used += static_cast<float>(ink(channel, i)) * (100.0f / 255.0f);
    const float room = std::max(std::min(knobs_.max_white, knobs_.budget - used), 0.0f);
    const float value = std::max(std::min(room, knobs_.max_white * coverage), knobs_.min_white * coverage);
    if (!(knobs_.max_white > 0.0f) || !(value > 0.0f)) return 0;
    return static_cast<std::uint8_t>(std::clamp(value / knobs_.max_white * 255.0f + 0.5f, 0.0f, 255.0f));
  }

  ChokeContext prepare_choke() const {
    std::vector<std::uint8_t> coverage(pixels()), light(pixels());
    for (std::size_t i = 0; i < pixels(); ++i) {
      coverage[i] = plain_coverage(inks(i).data());
      light[i] = plain_light(inks(i).data(), knobs_.lightness);
    }
    const bool protects = knobs_.adaptive && knobs_.protect_light;
    const auto view = [&](const auto& plane) { return PlaneView(plane.data(), strip_.width, strip_.height); };
    return prepare_device_choke(
        {view(coverage), view(strip_.explicit_white),
         knobs_.adaptive ? view(strip_.planes[kChannelW]) : PlaneView(), protects ? view(light) : PlaneView(),
         0, strip_.height},
        {kDpi, knobs_.x_dpi, knobs_.y_dpi,
         DeviceChoke{true, knobs_.amount, WhiteChokeStrategy::production,
                     knobs_.adaptive ? DeviceChokeAlgorithm::adaptive : DeviceChokeAlgorithm::production,
                     knobs_.min_width, protects, knobs_.lightness}});
  }

  void screen() {
    RipEngineParams params;
    params.src_dpi = kDpi, params.x_dpi = knobs_.x_dpi, params.y_dpi = knobs_.y_dpi;
    params.n_channels = kChannelCount;
    params.cache_dir = NVO_TEST_MASK_DIR;
    params.color_resampling = knobs_.color_hard ? ResamplingMode::hard : ResamplingMode::smooth;
    params.white_resampling = knobs_.white_hard ? ResamplingMode::hard : ResamplingMode::smooth;
    for (const Knobs::Curve& curve : knobs_.curves) {
      std::vector<float> table = curve.lut;
      for (std::size_t i = table.size(); i < 256; ++i)
        table.push_back(
            std::clamp(std::pow(static_cast<float>(i) / 255.0f, curve.gamma) * curve.limit, 0.0f, 255.0f));
      params.linear_lut.push_back(std::move(table));
    }
    const RipEngine engine(params);
    const ChokeContext choke = knobs_.choke ? prepare_choke() : ChokeContext();
    std::vector<DropMap> inks;
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel) {
      const bool choked = knobs_.choke && (channel != kChannelW || knobs_.adaptive);
      const std::vector<std::uint8_t> plane(strip_.planes[channel].begin(), strip_.planes[channel].end());
      inks.push_back(PlainRipEngine(engine).screen(
          {plane, strip_.width, strip_.height, 0, strip_.height, static_cast<std::int32_t>(channel), false},
          choked ? &choke : nullptr));
    }
    for (const std::uint32_t code : knobs_.slots)
      slots_.push_back(code < kChannelCount ? inks[code].data
                                            : std::vector<std::uint8_t>(inks[0].data.size()));
  }

  const Knobs knobs_;
  const LoadedImage image_;
  std::uint32_t pad_ = 0;
  StripBuffer strip_;
  std::vector<std::vector<std::uint8_t>> slots_;
};

}  // namespace nvo::test
