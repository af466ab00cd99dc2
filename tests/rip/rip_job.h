#pragma once

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
    const auto sampling = [](ResamplingMode mode) {
      return mode == ResamplingMode::hard ? SamplingMode::hard : SamplingMode::smooth;
    };
    RipEngineParams params;
    params.src_dpi = rip.options.src_dpi;
    params.x_dpi = rip.options.print_mode.x_dpi, params.y_dpi = rip.options.print_mode.y_dpi;
    params.n_channels = kChannelCount;
    params.cache_dir = rip.options.cache_dir;
    params.linear_lut = channel_curves(settings);
    params.color_resampling = sampling(rip.options.color_resampling_mode);
    params.white_resampling = sampling(rip.options.white_resampling_mode);
    params.white_choke_enabled = rip.options.white_choke_enabled;
    params.white_choke_amount_px_at_300dpi = rip.options.white_choke_amount_px_at_300dpi;
    params.white_choke_strategy = WhiteChokeStrategy::production;
    params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
    return params;
  }
};

/// A CMYK + white picture with slopes, edges and blank parts.
inline TiffFile picture(std::uint32_t width, std::uint32_t height, std::uint32_t dpi = 300) {
  TiffFile tiff = cmykw_tiff(width, height, [=](std::uint32_t x, std::uint32_t y, std::uint8_t* ink) {
    const bool inside = (x / 16 + y / 64) % 3 != 0;
    ink[0] = static_cast<std::uint8_t>(inside ? x * 255 / width : 0);
    ink[1] = static_cast<std::uint8_t>(inside ? y * 255 / height : 0);
    ink[2] = inside && (x ^ y) & 8 ? 170 : 0;
    ink[3] = inside ? static_cast<std::uint8_t>((x * y) % 251) : 0;
    ink[4] = inside ? static_cast<std::uint8_t>(x % 7 * 20) : 255;
  });
  tiff.x_resolution = tiff.y_resolution = static_cast<float>(dpi);
  return tiff;
}

}  // namespace nvo::test
