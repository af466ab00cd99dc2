// Every print mode of every head, from the file that a designer made to the drops of each slot, against
// screening dot by dot.

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rip/rip_job.h"
#include "screen/plain_coverage.h"
#include "screen/plain_rip_engine.h"

namespace nvo {
namespace {

using test::Job;
using test::PrintFile;

struct HeadCase {
  PrintHead head;
  std::vector<std::uint32_t> map, slots;  ///< as a job gives it, and as it has to be printed
  std::string extension;
};

const HeadCase kHeads[] = {{PrintHead::i3200, {}, {3, 0, 1, 2, 4, 4}, ".prt"},
                           {PrintHead::i1600, {0, 4, 1}, {0, 4, 1, 2, 4, 5}, ".prn"},
                           {PrintHead::xp600, {3, 0, 1, 2, 5, 5, 5}, {3, 0, 1, 2, 5, 5, 4}, ".prt"}};

/// The five planes of a sheet on the source grid.
struct Planes {
  std::uint32_t width = 0, height = 0;
  std::array<std::vector<std::uint8_t>, kChannelCount> inks;
};

/// Draws the art. Returns the planes that a sheet with `pad` pixels around it has to be composed of.
Planes draw(const std::string& path, std::uint32_t src_dpi, bool own_white, std::uint32_t pad) {
  const std::uint32_t zoom = src_dpi / 300;
  const test::TiffFile tiff = test::picture(26 * zoom, 33 * zoom, src_dpi, own_white);
  test::write_tiff(path, tiff);

  Planes planes{tiff.width + 2 * pad, tiff.height + 2 * pad, {}};
  for (auto& plane : planes.inks) plane.resize(std::size_t{planes.width} * planes.height);
  for (std::uint32_t y = 0; y < tiff.height; ++y)
    for (std::uint32_t x = 0; x < tiff.width; ++x) {
      const auto inks = test::art(x / zoom, y / zoom);
      for (std::uint32_t channel = 0; channel < kChannelCount; ++channel)
        if (own_white || inks[kChannelW] != 0)
          planes.inks[channel][std::size_t{y + pad} * planes.width + x + pad] = inks[channel];
    }
  return planes;
}

/// The drops of the planes, dot by dot.
std::vector<DropMap> plain_drops(const Planes& planes, const Job& job, bool whole) {
  const RipJobOptions& options = job.rip.options;
  const RipEngine engine(job.engine_params());
  const std::size_t pixels = planes.inks[0].size();
  std::vector<std::uint8_t> coverage(pixels), light(pixels);
  for (std::size_t i = 0; i < pixels; ++i) {
    const std::uint8_t inks[] = {planes.inks[0][i], planes.inks[1][i], planes.inks[2][i], planes.inks[3][i]};
    coverage[i] = test::plain_coverage(inks);
    light[i] = test::plain_light(inks, options.white_choke_adaptive_lightness_threshold);
  }
  const auto view = [&](const std::vector<std::uint8_t>& plane) {
    return PlaneView(plane.data(), planes.width, planes.height);
  };
  const bool adaptive = options.white_choke_algorithm == WhiteChokeSetting::adaptive;
  ChokeContext choke;
  if (options.white_choke_enabled)
    choke =
        engine.prepare_device_white({.coverage = view(coverage),
                                     .exempt_mask = {},
                                     .support_plane = adaptive ? view(planes.inks[kChannelW]) : PlaneView(),
                                     .light_mask = view(light),
                                     .strip_src_y = 0,
                                     .total_src_rows = planes.height});

  std::vector<DropMap> drops;
  for (std::uint32_t channel = 0; channel < kChannelCount; ++channel) {
    const bool choked = options.white_choke_enabled && (adaptive || channel != kChannelW);
    drops.push_back(
        test::PlainRipEngine(engine).screen({planes.inks[channel], planes.width, planes.height, 0,
                                             planes.height, static_cast<std::int32_t>(channel), whole},
                                            choked ? &choke : nullptr));
  }
  return drops;
}

class PrintModes : public testing::TestWithParam<std::tuple<std::uint32_t, bool, ResamplingMode>> {};

TEST_P(PrintModes, FromEndToEndInFewAndInManyStrips) {
  const auto [src_dpi, choke, sampling] = GetParam();
  for (const HeadCase& head : kHeads) {
    const HeadConfig config{0, static_cast<std::uint32_t>(head.head)};
    for (const PrintMode& mode : print_modes_for(config)) {
      Job job;
      RipJobOptions& options = job.rip.options;
      options.src_dpi = src_dpi;
      options.print_head = config.print_head;
      options.print_mode = mode;
      options.output_channel_map = head.map;
      options.white_choke_enabled = choke;
      options.white_choke_adaptive_min_width_dots = 6;
      options.white_choke_adaptive_lightness_threshold = 60;
      if (sampling == ResamplingMode::hard) options.white_choke_algorithm = WhiteChokeSetting::production;
      options.color_resampling_mode = sampling;
      options.white_resampling_mode = choke ? ResamplingMode::smooth : sampling;
      job.settings = RipSettings();
      std::vector<std::string> messages;
      job.rip.progress = [&](const RipProgress& p) { messages.push_back(p.message); };
      const std::uint32_t pad = !choke ? 0 : src_dpi == 300 ? 2 : 3;  // whole pixels that hold the choke
      const Planes planes = draw(job.input, src_dpi, !choke, pad);
      const bool streams = mode.y_dpi >= src_dpi;
      const std::vector<DropMap> drops = plain_drops(planes, job, !streams);

      for (const std::uint32_t strip_h : {1024u, 7u}) {
        SCOPED_TRACE(mode.id + " in strips of " + std::to_string(strip_h));
        options.strip_h_px = strip_h;
        const PrintFile file = job.run();
        const auto dots = [src_dpi = src_dpi](std::uint32_t pixels, std::uint32_t dpi) {
          return static_cast<std::uint32_t>(std::lround(1.0 * pixels * dpi / src_dpi));
        };
        EXPECT_EQ(std::tuple(file.x_dpi, file.y_dpi), std::tuple(mode.x_dpi, mode.y_dpi));
        ASSERT_EQ(std::tuple(file.width, file.height, file.slots),
                  std::tuple(dots(planes.width, mode.x_dpi), dots(planes.height, mode.y_dpi),
                             static_cast<std::uint32_t>(head.slots.size())));
        ASSERT_TRUE(file.is_whole);
        const std::vector<std::uint8_t> blank(file.drops[0].size());
        for (std::size_t slot = 0; slot < head.slots.size(); ++slot)
          EXPECT_TRUE(file.drops[slot] ==
                      (head.slots[slot] == kChannelOff ? blank : drops[head.slots[slot]].data))
              << "slot " << slot;
      }
      EXPECT_THAT(messages, testing::Contains((streams ? "Finalizing " : "Writing ") + head.extension));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(SourceChokeSampling, PrintModes,
                         testing::Values(std::tuple(300u, false, ResamplingMode::smooth),
                                         std::tuple(300u, true, ResamplingMode::smooth),
                                         std::tuple(300u, true, ResamplingMode::hard),
                                         std::tuple(600u, false, ResamplingMode::hard),
                                         std::tuple(600u, true, ResamplingMode::smooth)));

}  // namespace
}  // namespace nvo
