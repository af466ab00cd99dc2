#include "screen/rip_engine.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "screen/plain_rip_engine.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::LogCapture;
using test::PlainRipEngine;
using ::testing::ElementsAre;
using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

/// Small masks that generate at once, kept for all tests of the program; the second tile is no power of two.
RipEngineParams base_params(std::uint32_t x_dpi = 720, std::uint32_t y_dpi = 1800, bool odd_tile = false) {
  static const test::TempDir masks;
  RipEngineParams params;
  params.x_dpi = x_dpi;
  params.y_dpi = y_dpi;
  params.n_channels = 5;
  params.tile_w = odd_tile ? 24 : 128;
  params.tile_h = odd_tile ? 20 : 32;
  params.n_masks = 5;
  params.cache_dir = masks.path().string();
  return params;
}

/// Flat patches (often of whole levels, where the last bit of a sum shows), equal rows, rows without ink or
/// with a short stretch of it and noise, so that every shortcut is taken somewhere.
std::vector<std::uint8_t> random_plane(Random& random, std::uint32_t width, std::uint32_t rows) {
  std::vector<std::uint8_t> plane;
  for (std::uint32_t y = 0; y < rows; ++y) {
    const std::uint32_t kind = random() % 5;
    if (kind == 0 && y > 0) {
      plane.insert(plane.end(), plane.end() - width, plane.end());
      continue;
    }
    const auto flat = static_cast<std::uint8_t>(random() % 2 == 0 ? 85 * (1 + random() % 2) : random());
    const std::uint32_t ink_from = kind == 3 ? random() % width : 0;
    const std::uint32_t ink_to = kind == 3 ? ink_from + random() % 9 : kind == 1 ? 0 : width;
    for (std::uint32_t x = 0; x < width; ++x)
      plane.push_back(x < ink_from || x >= ink_to ? 0
                      : kind == 2                 ? flat
                                                  : static_cast<std::uint8_t>(random()));
  }
  return plane;
}

/// A context that no choke would compute: cores outside the grown area, ring dots without a source and
/// sources that are no seeds or lie outside the grid.
ChokeContext random_choke(Random& random, std::uint32_t width, std::uint32_t height) {
  ChokeContext choke;
  choke.width = width;
  choke.height = height;
  choke.adaptive = true;
  choke.colour_core = choke.grown = choke.keep = BitPlane(width, height);
  choke.ring_rows.push_back(0);
  for (std::uint32_t y = 0; y < height; ++y) {
    const std::uint32_t density = random() % 4;  // of a row: nothing, everything, mixed
    const auto chance = [&] { return density == 0 ? false : density == 1 ? true : random() % 3 != 0; };
    for (std::uint32_t x = 0; x < width; ++x) {
      if (chance()) choke.colour_core.set(x, y);
      if (chance()) choke.grown.set(x, y);
      if (chance()) choke.keep.set(x, y);
      if (random() % 2 == 0) choke.ring.push_back({x, random() % (width + 1), random() % (height + 1)});
    }
    choke.ring_rows.push_back(choke.ring.size());
  }
  return choke;
}

struct Resolution {
  std::uint32_t src, x, y;
};
constexpr Resolution kResolutions[] = {{300, 720, 1800}, {300, 360, 3600}, {300, 720, 900},  {300, 360, 540},
                                       {600, 720, 900},  {600, 360, 1800}, {300, 720, 2400}, {300, 720, 720},
                                       {300, 300, 300},  {1500, 360, 200}};

/// Settings of one comparison, drawn at random.
RipEngineParams random_params(Random& random, const Resolution& dpi) {
  RipEngineParams params = base_params(dpi.x, dpi.y, random() % 2 == 0);
  params.src_dpi = dpi.src;
  params.color_resampling = random() % 3 == 0 ? SamplingMode::hard : SamplingMode::smooth;
  params.white_resampling = random() % 2 == 0 ? SamplingMode::hard : SamplingMode::smooth;
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = 1.5f;
  params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
  params.performance.mode = PerformanceMode::manual;
  const std::uint32_t threads[] = {1, 2, 3, 8};
  params.performance.row_threads = threads[random() % 4];
  const InstructionSet sets[] = {InstructionSet::scalar, InstructionSet::sse41, InstructionSet::avx2};
  params.instruction_set = sets[random() % 3];
  if (random() % 4 == 0) {  // a curve whose blank pixel prints
    params.linear_lut.assign(5, std::vector<float>(256));
    for (auto& curve : params.linear_lut)
      for (float& ink : curve) ink = std::uniform_real_distribution<float>(0.0f, 255.0f)(random);
  }
  return params;
}

/// Rows packed from the bottom up, each twice, with guard bytes between them, hold the same dots.
void expect_packed(RipEngine& engine, const std::vector<std::uint8_t>& strip,
                   const PlainRipEngine::Strip& part, const std::uint8_t* coverage, const ChokeContext* choke,
                   const DeviceRowWindow& window, const DropMap& expected) {
  const std::size_t dots = packed_dots_bytes(expected.width), padding = expected.width % 3;
  const std::size_t packed = dots + padding, slot = packed + 3, cycle = 2 * slot;
  std::vector<std::uint8_t> bytes(cycle * window.rows, 0xA5), wanted = bytes;
  for (std::uint32_t row = 0; row < window.rows; ++row) {
    std::uint8_t* const target = wanted.data() + (window.rows - 1 - row) * cycle;
    std::memset(target, 0, packed);
    for (std::uint32_t x = 0; x < expected.width; ++x) {
      const std::uint8_t level = expected.data[std::size_t{window.top + row} * expected.width + x];
      target[x / 4] = static_cast<std::uint8_t>(target[x / 4] | level << (6 - 2 * (x % 4)));
    }
    std::memcpy(target + slot, target, packed);
  }
  const PackedRows out{expected.width,
                       bytes.data() + (window.rows - 1) * cycle,
                       -static_cast<std::ptrdiff_t>(cycle),
                       {static_cast<std::ptrdiff_t>(slot)},
                       padding};
  engine.pack_strip(out, strip.data(), part.src_w, part.rows, part.src_y, part.total_rows, part.channel,
                    coverage, choke, nullptr, window);
  ASSERT_TRUE(bytes == wanted);
}

TEST(RipEngine, EqualsThePlainScreenOnWholePlanesAndStrips) {
  const LogCapture quiet(LogLevel::error);
  Random random(7);
  RipEngine::ProcessScratch scratch;  // sizes of one engine must not show in the next
  DropMap strip_out;
  for (const Resolution& dpi : kResolutions) {
    for (const std::uint32_t width : {1u, 2u, 3u, 17u, 130u}) {
      for (int variant = 0; variant < 8; ++variant) {
        RipEngine engine(random_params(random, dpi));
        const PlainRipEngine plain(engine);
        const std::uint32_t rows = 1 + random() % 24;
        const std::uint32_t first = random() % rows, count = 1 + random() % (rows - first);
        const auto channel = static_cast<std::int32_t>(random() % 5);
        const std::vector<std::uint8_t> plane = random_plane(random, width, rows);
        const std::vector<std::uint8_t> strip(plane.begin() + std::size_t{first} * width,
                                              plane.begin() + std::size_t{first + count} * width);
        SCOPED_TRACE(::testing::Message() << dpi.src << " to " << dpi.x << "x" << dpi.y << " width " << width
                                          << " variant " << variant << " channel " << channel);

        for (const bool with_choke : {false, true}) {
          const std::uint8_t* coverage = with_choke ? plane.data() : nullptr;
          DropMap expected = plain.screen({plane, width, rows, 0, rows, channel, true}, nullptr);
          ChokeContext choke;
          if (with_choke) {
            choke = random_choke(random, expected.width, expected.height);
            expected = plain.screen({plane, width, rows, 0, rows, channel, true}, &choke);
          }
          const DropMap whole = engine.process(plane.data(), width, rows, channel, coverage, nullptr,
                                               with_choke ? &choke : nullptr, &scratch);
          EXPECT_EQ(whole.width, expected.width);
          ASSERT_TRUE(whole.data == expected.data);

          const PlainRipEngine::Strip part{strip, width, count, first, rows, channel, false};
          expected = plain.screen(part, nullptr);
          if (with_choke) {
            choke = random_choke(random, expected.width, expected.height);
            expected = plain.screen(part, &choke);
          }
          engine.process_strip(strip_out, strip.data(), width, count, first, rows, channel, coverage, nullptr,
                               with_choke ? &choke : nullptr, variant % 2 == 0 ? &scratch : nullptr);
          EXPECT_EQ(strip_out.height, expected.height);
          ASSERT_TRUE(strip_out.data == expected.data);
          if (expected.height == 0) continue;

          const DeviceRowWindow window{random() % expected.height, 0};
          const DeviceRowWindow rows_wanted{window.top, 1 + random() % (expected.height - window.top)};
          expect_packed(engine, strip, part, coverage, with_choke ? &choke : nullptr, rows_wanted, expected);
        }
      }
    }
  }
}

/// Device rows between two equal source rows are sums of their own: they differ from their neighbours in the
/// last bit.
TEST(RipEngine, EqualSourceRowsEqualThePlainScreenInEveryValue) {
  const LogCapture quiet(LogLevel::error);
  for (const std::uint32_t y_dpi : {540u, 720u, 1000u}) {
    RipEngineParams params = base_params(720, y_dpi);
    params.white_resampling = SamplingMode::smooth;
    RipEngine engine(params);
    for (int ink = 1; ink < 256; ++ink) {
      const std::vector<std::uint8_t> plane(27 * 30, static_cast<std::uint8_t>(ink));
      const DropMap drops = engine.process(plane.data(), 27, 30, 4, nullptr, nullptr, nullptr, nullptr);
      ASSERT_TRUE(drops.data == PlainRipEngine(engine).screen({plane, 27, 30, 0, 30, 4, true}, nullptr).data)
          << ink;
    }
  }
}

TEST(RipEngine, StripsOfAnyHeightMeetWithoutASeam) {
  const LogCapture quiet(LogLevel::error);
  Random random(3);
  RipEngine engine(base_params());  // every device row lies inside one source row
  const std::uint32_t width = 37, rows = 50;
  const auto plane = random_plane(random, width, rows);
  for (const std::int32_t channel : {1, 4}) {
    std::vector<std::uint8_t> joined;
    for (std::uint32_t y = 0; y < rows;) {
      const std::uint32_t count = std::min(1 + random() % 9, rows - y);
      DropMap strip;
      engine.process_strip(strip, plane.data() + y * width, width, count, y, rows, channel, nullptr, nullptr,
                           nullptr, nullptr);
      joined.insert(joined.end(), strip.data.begin(), strip.data.end());
      y += count;
    }
    EXPECT_TRUE(joined ==
                engine.process(plane.data(), width, rows, channel, nullptr, nullptr, nullptr, nullptr).data);
  }
}

TEST(RipEngine, InkValuesBecomeTheirLevels) {
  const LogCapture quiet(LogLevel::error);
  RipEngineParams params = base_params();
  params.white_resampling = SamplingMode::smooth;
  RipEngine engine(params);
  for (const auto& [ink, level] : {std::pair{0, 0}, {85, 1}, {170, 2}, {255, 3}}) {
    const std::vector<std::uint8_t> plane(20 * 10, static_cast<std::uint8_t>(ink));
    const DropMap drops = engine.process(plane.data(), 20, 10, 4, nullptr, nullptr, nullptr, nullptr);
    EXPECT_THAT(drops.data, ::testing::Each(level)) << ink;
  }
  EXPECT_EQ(PlainRipEngine::level(84.0f, 254), 0);
  EXPECT_EQ(PlainRipEngine::level(84.0f, 250), 1);

  RipEngineParams coarse = base_params(1, 1);  // a pixel is less than a dot
  const std::uint8_t pixel = 255;
  const DropMap one = RipEngine(coarse).process(&pixel, 1, 1, 4, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(one.width * one.height, 1u);
  DropMap strip{9, 9, std::vector<std::uint8_t>(81)};
  const std::vector<std::uint8_t> few(2, 255);
  RipEngine(coarse).process_strip(strip, few.data(), 1, 2, 0, 400, 0, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(strip.width, 1u);
  EXPECT_EQ(strip.height, 0u);
  EXPECT_TRUE(strip.data.empty());
}

TEST(RipEngine, CaptureShowsTheValuesThatWereScreened) {
  const LogCapture quiet(LogLevel::error);
  Random random(11);
  RipEngineParams params = base_params();
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = 1.0f;
  params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
  const auto plane = random_plane(random, 30, 12);
  for (const SamplingMode white : {SamplingMode::smooth, SamplingMode::hard}) {
    params.white_resampling = white;
    RipEngine engine(params);
    ChokeContext choke = random_choke(random, 72, 72);
    for (RingDot& dot :
         choke.ring) {  // what a real choke guarantees: sources are seeds, which stay as they are
      dot.source_x = dot.x;
      dot.source_y = random() % 72;
      choke.colour_core.set(dot.source_x, dot.source_y);
      choke.grown.set(dot.source_x, dot.source_y);
    }
    for (const std::int32_t channel : {2, 4}) {
      RipEngine::PreThresholdCapture seen;
      const auto run = [&](const ChokeContext* context, RipEngine::PreThresholdCapture* capture) {
        return engine.process(plane.data(), 30, 12, channel, channel < 4 ? plane.data() : nullptr, capture,
                              context, nullptr);
      };
      EXPECT_TRUE(run(&choke, nullptr).data == run(&choke, &seen).data);
      EXPECT_TRUE(seen.device_choke_used);
      EXPECT_EQ(seen.algorithm, channel < 4 ? "rip_pre_threshold_device_domain"
                                            : "rip_pre_threshold_device_domain_adaptive_white");
      EXPECT_EQ(seen.values.size(), 72u * 72u);
      const BitPlane& shown = channel < 4 ? choke.grown : choke.keep;
      for (std::size_t i = 0; i < seen.values.size(); ++i)
        ASSERT_TRUE(shown.test(i % 72, i / 72) || seen.values[i] == 0);

      ChokeContext other = random_choke(random, 72, 71);
      EXPECT_TRUE(run(&other, nullptr).data == run(&other, &seen).data);
      EXPECT_EQ(seen.algorithm, "rip_pre_threshold_standard");
      EXPECT_FALSE(seen.device_choke_used);
      if (channel == 4) {
        EXPECT_TRUE(run(&other, nullptr).data == run(nullptr, nullptr).data);
      }
    }
  }
}

TEST(RipEngine, ChokesOnlyWhereTheSettingsAsk) {
  const LogCapture quiet(LogLevel::error);
  Random random(5);
  const auto plane = random_plane(random, 30, 12);
  struct Case {
    bool enabled;
    float amount;
    DeviceChokeAlgorithm algorithm;
    WhiteChokeStrategy strategy;
    bool colour, white;
  };
  const auto production = DeviceChokeAlgorithm::production, adaptive = DeviceChokeAlgorithm::adaptive;
  for (const Case& c : {Case{true, 1.0f, adaptive, WhiteChokeStrategy::baseline, true, true},
                        Case{true, 1.0f, production, WhiteChokeStrategy::production, true, false},
                        Case{true, 1.0f, production, WhiteChokeStrategy::baseline, false, false},
                        Case{true, 0.0f, adaptive, WhiteChokeStrategy::production, false, false},
                        Case{false, 1.0f, adaptive, WhiteChokeStrategy::production, false, false}}) {
    RipEngineParams params = base_params();
    params.white_choke_enabled = c.enabled;
    params.white_choke_amount_px_at_300dpi = c.amount;
    params.white_choke_algorithm = c.algorithm;
    params.white_choke_strategy = c.strategy;
    RipEngine engine(params);
    const ChokeContext choke = random_choke(random, 72, 72);
    const auto applied = [&](std::int32_t channel, const std::uint8_t* coverage) {
      return engine.process(plane.data(), 30, 12, channel, coverage, nullptr, &choke, nullptr).data !=
             engine.process(plane.data(), 30, 12, channel, nullptr, nullptr, nullptr, nullptr).data;
    };
    EXPECT_EQ(applied(0, plane.data()), c.colour);
    EXPECT_FALSE(applied(0, nullptr));
    EXPECT_EQ(applied(4, nullptr), c.white);
  }
}

TEST(RipEngine, ComputesAMissingColourChokeItself) {
  const LogCapture quiet(LogLevel::error);
  Random random(9);
  RipEngineParams params = base_params();
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = 1.5f;
  params.white_choke_strategy = WhiteChokeStrategy::production;
  RipEngine engine(params);
  const auto plane = random_plane(random, 40, 20);
  const ChokeContext choke =
      engine.prepare_device_white(plane.data(), 40, 10, 5, 20, nullptr, nullptr, nullptr);
  DropMap given, computed;
  engine.process_strip(given, plane.data(), 40, 10, 5, 20, 0, plane.data(), nullptr, &choke, nullptr);
  engine.process_strip(computed, plane.data(), 40, 10, 5, 20, 0, plane.data(), nullptr, nullptr, nullptr);
  EXPECT_EQ(choke.height, 60u);
  EXPECT_TRUE(given.data == computed.data);
}

TEST(RipEngine, LogsItsCallsAndChokes) {
  LogCapture log;
  RipEngineParams params = base_params();
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = 1.5f;
  params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
  RipEngine special(params);
  params.white_resampling = SamplingMode::smooth;
  RipEngine smooth(params);
  Random random(1);
  const std::vector<std::uint8_t> plane(10 * 10, 9), tall(700, 9);
  ChokeContext choke = random_choke(random, 24, 60);
  choke.radius_in = 0.005f;
  choke.radius_px_x = 3.6f;
  choke.radius_px_y = 9.0f;
  choke.min_width_dots = 3;
  DropMap out;
  log.take();
  const std::string source = " src=10x10 dev=24x60", amount = " amount_px@300=1.5";

  smooth.process(plane.data(), 10, 10, 0, plane.data(), nullptr, &choke, nullptr);
  EXPECT_THAT(log.take(), ElementsAre("[INFO ] RipEngine ch=0" + source,
                                      "[INFO ] RipEngine ch=0 applying device-domain choke pre-threshold" +
                                          amount + " radius_in=0.005 radius_px_x=3.6 radius_px_y=9",
                                      "[INFO ] RipEngine ch=0 done."));
  smooth.process(plane.data(), 10, 10, 4, nullptr, nullptr, &choke, nullptr);
  EXPECT_THAT(log.take(), ElementsAre("[INFO ] RipEngine ch=4" + source,
                                      "[INFO ] RipEngine ch=4 applying adaptive white choke pre-threshold" +
                                          amount + " radius_in=0.005 min_width_dots=3",
                                      "[INFO ] RipEngine ch=4 done."));
  special.process(plane.data(), 10, 10, 4, nullptr, nullptr, &choke, nullptr);
  EXPECT_THAT(log.take(), ElementsAre("[INFO ] RipEngine ch=4" + source,
                                      "[INFO ] RipEngine ch=4 using white-special nearest-like sampling path",
                                      "[INFO ] RipEngine ch=4 done."));
  smooth.process_strip(out, plane.data(), 10, 10, 0, 10, 3, plane.data(), nullptr, &choke, nullptr);
  smooth.process_strip(out, plane.data(), 10, 10, 0, 10, 4, nullptr, nullptr, &choke, nullptr);
  special.process_strip(out, plane.data(), 10, 10, 0, 10, 4, nullptr, nullptr, &choke, nullptr);
  const std::string radii = " radius_px_x=3.6 radius_px_y=9";
  EXPECT_THAT(log.take(),
              ElementsAre("[DEBUG] RipEngine strip ch=3 device-domain choke pre-threshold" + amount + radii,
                          "[DEBUG] RipEngine strip ch=4 adaptive white choke pre-threshold" + amount + radii +
                              " min_width_dots=3",
                          "[DEBUG] RipEngine strip ch=4 using white-special nearest-like sampling path"));
  smooth.process(tall.data(), 1, 700, 2, nullptr, nullptr, nullptr, nullptr);
  EXPECT_THAT(log.take(),
              ElementsAre("[INFO ] RipEngine ch=2 src=1x700 dev=2x4200", "[DEBUG]   ch=2 row 2000/4200",
                          "[DEBUG]   ch=2 row 4000/4200", "[INFO ] RipEngine ch=2 done."));
}

TEST(RipEngine, MendsCurves) {
  LogCapture log;
  RipEngineParams params = base_params();
  const RipEngine defaults(params);
  ASSERT_EQ(defaults.params().linear_lut.size(), 5u);
  EXPECT_EQ(defaults.params().linear_lut[3][255], 150.0f);
  EXPECT_EQ(defaults.params().linear_lut[2][100], std::pow(100.0f / 255.0f, 1.4f) * 190.0f);
  EXPECT_EQ(defaults.params().linear_lut[4][77], 77.0f);

  params.linear_lut.assign(2, std::vector<float>(256, 9.0f));
  params.linear_lut[0].resize(255);
  params.linear_lut[1][0] = std::numeric_limits<float>::quiet_NaN();
  params.linear_lut[1][1] = std::numeric_limits<float>::infinity();
  params.linear_lut[1][2] = -5.0f;
  params.linear_lut[1][3] = 256.0f;
  log.take();
  const RipEngine mended(params);
  EXPECT_THAT(
      log.take(),
      ::testing::Contains("[WARN ] RipEngine: linear_lut channel 0 has 255 values; replacing with identity "
                          "256-entry LUT"));
  EXPECT_EQ(mended.params().linear_lut[0][200], 200.0f);
  EXPECT_THAT(
      std::vector<float>(mended.params().linear_lut[1].begin(), mended.params().linear_lut[1].begin() + 5),
      ElementsAre(0.0f, 0.0f, 0.0f, 255.0f, 9.0f));
  EXPECT_EQ(mended.params().linear_lut.size(), 5u);
}

template <class Exception>
std::string message_of(const std::function<void()>& run) {
  try {
    run();
  } catch (const Exception& error) {
    return error.what();
  }
  return "no such exception";
}

TEST(RipEngine, RejectsWhatItCannotScreen) {
  const LogCapture quiet(LogLevel::error);
  const auto build = [](auto change) {
    return message_of<std::invalid_argument>([&] {
      RipEngineParams params = base_params();
      change(params);
      const RipEngine engine(params);
    });
  };
  const std::string dpi = "RipEngine: src_dpi/x_dpi/y_dpi must be > 0";
  EXPECT_EQ(build([](RipEngineParams& p) { p.src_dpi = 0; }), dpi);
  EXPECT_EQ(build([](RipEngineParams& p) { p.x_dpi = 0; }), dpi);
  EXPECT_EQ(build([](RipEngineParams& p) { p.y_dpi = p.n_channels = 0; }), dpi);
  EXPECT_EQ(build([](RipEngineParams& p) { p.n_channels = 0; }), "RipEngine: n_channels must be > 0");

  RipEngine engine(base_params());
  const std::uint8_t pixels[4] = {};
  const auto process = [&](const std::uint8_t* src, std::uint32_t w, std::uint32_t h, std::int32_t channel) {
    return message_of<std::invalid_argument>(
        [&] { engine.process(src, w, h, channel, nullptr, nullptr, nullptr, nullptr); });
  };
  EXPECT_EQ(process(nullptr, 2, 2, 9), "RipEngine::process: invalid source buffer");
  EXPECT_EQ(process(pixels, 0, 2, 0), "RipEngine::process: invalid source buffer");
  EXPECT_EQ(process(pixels, 2, 0, 0), "RipEngine::process: invalid source buffer");
  EXPECT_EQ(process(pixels, 2, 2, -1), "RipEngine::process: channel out of range");
  EXPECT_EQ(process(pixels, 2, 2, 5), "RipEngine::process: channel out of range");

  DropMap out{1, 1, {7}};
  const auto strip = [&](std::uint32_t w, std::uint32_t rows, std::uint32_t y, std::uint32_t total,
                         int channel) {
    return message_of<std::invalid_argument>([&] {
      engine.process_strip(out, pixels, w, rows, y, total, channel, nullptr, nullptr, nullptr, nullptr);
    });
  };
  EXPECT_EQ(strip(0, 1, 0, 1, 9), "RipEngine::process_strip: invalid source strip");
  EXPECT_EQ(strip(1, 0, 0, 1, 0), "RipEngine::process_strip: invalid source strip");
  EXPECT_EQ(strip(1, 1, 9, 0, 0), "RipEngine::process_strip: invalid source strip");
  EXPECT_EQ(strip(1, 1, 9, 1, 5), "RipEngine::process_strip: channel out of range");
  EXPECT_EQ(strip(1, 1, 1, 1, 0), "RipEngine::process_strip: strip source bounds are invalid");
  EXPECT_EQ(strip(1, 2, 3, 4, 0), "RipEngine::process_strip: strip source bounds are invalid");
  EXPECT_EQ(strip(1, 0xffffffff, 1, 0xffffffff, 0),
            "RipEngine::process_strip: strip source bounds are invalid");
  EXPECT_EQ(message_of<std::length_error>([&] {
              engine.process_strip(out, pixels, 1u << 30, 1, 0, 1, 0, nullptr, nullptr, nullptr, nullptr);
            }),
            "DropMap: allocation exceeds 2 GiB cap");
  EXPECT_EQ(out.data, std::vector<std::uint8_t>{7});

  EXPECT_EQ(checked_drop_map_bytes(0x10000, 0x8000), kMaxDropMapBytes);
  EXPECT_EQ(message_of<std::length_error>([] { checked_drop_map_bytes(kMaxDropMapBytes + 1, 1); }),
            "DropMap: allocation exceeds 2 GiB cap");
  EXPECT_EQ(message_of<std::length_error>([] { checked_drop_map_bytes(1ull << 33, 1ull << 31); }),
            "DropMap: allocation size overflow");
}

}  // namespace
}  // namespace nvo
