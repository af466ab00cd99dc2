#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

#include "rip/stream_rip.h"
#include "screen/rip_engine.h"
#include "support/log_capture.h"
#include "support/print_file.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo::test {

/// A job in a folder of its own, with linear curves and no choke; the masks are those of the build.
struct Job {
  LogCapture log;
  TempDir dir;
  StreamRip rip;
  RipSettings settings;
  std::string input = dir.file("art.tif");
  std::string output = dir.file("art.prt");

  Job() {
    rip.options.cache_dir = NVO_TEST_MASK_DIR;
    rip.options.print_mode = default_print_mode({});
    rip.options.white_choke_enabled = false;
    for (ChannelSettings& channel : settings.channels) channel = {255.0f, 1.0f, {}};
  }

  PrintFile run(float width_in = 0, float height_in = 0) {
    rip.rip_single(input, output, settings, width_in, height_in);
    return PrintFile(read_all(output));
  }

  /// An engine for the mode, curves, sampling and choke of the job, on its own.
  RipEngineParams engine_params() const {
    RipEngineParams params;
    params.src_dpi = rip.options.src_dpi;
    params.x_dpi = rip.options.print_mode.x_dpi, params.y_dpi = rip.options.print_mode.y_dpi;
    params.n_channels = kChannelCount;
    params.cache_dir = rip.options.cache_dir;
    params.linear_lut = channel_curves(settings);
    params.color_resampling = rip.options.color_resampling_mode;
    params.white_resampling = rip.options.white_resampling_mode;
    params.white_choke_enabled = rip.options.white_choke_enabled;
    params.white_choke_amount_px_at_300dpi = rip.options.white_choke_amount_px_at_300dpi;
    params.white_choke_strategy = WhiteChokeStrategy::production;
    const bool adaptive = rip.options.white_choke_algorithm == WhiteChokeSetting::adaptive;
    params.white_choke_algorithm =
        adaptive ? DeviceChokeAlgorithm::adaptive : DeviceChokeAlgorithm::production;
    params.white_choke_adaptive_min_width_dots =
        static_cast<std::uint32_t>(rip.options.white_choke_adaptive_min_width_dots);
    params.white_choke_adaptive_lightness_threshold = rip.options.white_choke_adaptive_lightness_threshold;
    return params;
  }
};

/// What the jobs print, at 300 dots per inch and again to the right: a pale patch, solid ones, a coarse
/// texture and bare film. Four inks and the white below them.
inline std::array<std::uint8_t, kChannelCount> art(std::uint32_t x, std::uint32_t y) {
  x %= 26;
  if (x >= 19) return {};
  if (x < 5) return {12, 6, 9, 0, 255};
  if (x < 11) return {85, 170, 255, static_cast<std::uint8_t>(y < 16 ? 0 : 255), 255};
  const auto grain = [&](std::uint32_t step) {
    return static_cast<std::uint8_t>((x * 73 + y * 151 + step * 89) % 256);
  };
  return {grain(0), grain(1), grain(2), grain(3), static_cast<std::uint8_t>((x ^ y) & 4 ? 255 : 0)};
}

/// The art with a white channel of its own or, where the choke is to have something to do, with transparency
/// that white follows from.
inline TiffFile picture(std::uint32_t width, std::uint32_t height, std::uint32_t dpi = 300,
                        bool own_white = true) {
  TiffFile tiff = cmykw_tiff(width, height, [=](std::uint32_t x, std::uint32_t y, std::uint8_t* samples) {
    std::ranges::copy(art(x * 300 / dpi, y * 300 / dpi), samples);
    if (own_white) samples[kChannelW] = static_cast<std::uint8_t>(255 - samples[kChannelW]);
  });
  if (!own_white) tiff.extra_samples = {EXTRASAMPLE_UNASSALPHA};
  tiff.x_resolution = tiff.y_resolution = static_cast<float>(dpi);
  return tiff;
}

}  // namespace nvo::test
