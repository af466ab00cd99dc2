#include "screen/rip_engine.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "screen/kernels/instruction_set.h"
#include "screen/plain_rip_engine.h"
#include "screen/plain_screening.h"
#include "support/failure.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::failure_of;
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

/// A context that no choke would compute: cores outside the grown area and sources that are no seeds, all
/// over the grid or, with `seeds_only`, above and below dots of the core. Half of the ring dots that have one
/// right above keep its source.
ChokeContext random_choke(Random& random, std::uint32_t width, std::uint32_t height,
                          bool seeds_only = false) {
  ChokeContext choke;
  choke.width = width;
  choke.height = height;
  choke.adaptive = true;
  ColourRingRows& ring = choke.ring;
  choke.colour_core = choke.grown = choke.keep = ring.changed = BitPlane(width, height);
  for (std::uint32_t y = 0; y < height; ++y) ring.code_row.push_back(y);
  ring.lay_out(width, random() % 2 == 0 ? height : 5);
  ring.panels.resize((height + ColourRingRows::kPanelRows - 1) / ColourRingRows::kPanelRows);
  std::vector<std::uint32_t> row_of_source(width);
  for (std::uint32_t y = 0; y < height; ++y) {
    const std::uint32_t density = random() % 4;  // of a row: nothing, everything, mixed
    const auto chance = [&] { return density == 0 ? false : density == 1 ? true : random() % 3 != 0; };
    auto& places = ring.panels[y / ColourRingRows::kPanelRows];
    for (std::uint32_t x = 0; x < width; ++x) {
      if (chance()) choke.colour_core.set(x, y);
      if (chance()) choke.grown.set(x, y);
      if (chance()) choke.keep.set(x, y);
      if (seeds_only && x % 3 == 0) {
        choke.colour_core.set(x, y);
        choke.grown.set(x, y);
      }
      if (!choke.grown.test(x, y) || choke.colour_core.test(x, y)) continue;
      const bool ring_above = y > 0 && choke.grown.test(x, y - 1) && !choke.colour_core.test(x, y - 1);
      if (y % ColourRingRows::kPanelRows != 0 && ring_above && row_of_source[x] + ring.reach >= y &&
          random() % 2 == 0)
        continue;
      const std::uint32_t top = y - std::min(y, ring.reach), end = std::min(y + ring.reach + 1, height);
      row_of_source[x] = top + random() % (end - top);
      ring.changed.set(x, y);
      places.push_back(ring.place(row_of_source[x]) + (seeds_only ? x - x % 3 : random() % width));
    }
    ring.row_ends.push_back(static_cast<std::uint32_t>(places.size()));
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
  params.color_resampling = random() % 3 == 0 ? ResamplingMode::hard : ResamplingMode::smooth;
  params.white_resampling = random() % 2 == 0 ? ResamplingMode::hard : ResamplingMode::smooth;
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = 1.5f;
  params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
  const std::uint32_t threads[] = {1, 2, 3, 8};
  params.threads.rows = {WorkDivision::always, threads[random() % 4], true};
  if (random() % 4 == 0) {  // a curve whose blank pixel prints
    params.linear_lut.assign(5, std::vector<float>(256));
    for (auto& curve : params.linear_lut)
      for (float& ink : curve) ink = std::uniform_real_distribution<float>(0.0f, 255.0f)(random);
  }
  return params;
}

/// What the engine is asked for where the plain screen is asked for `part`; planes have rows without gaps.
RipEngine::Request request_for(const PlainRipEngine::Strip& part, const std::uint8_t* coverage = nullptr,
                               const ChokeContext* choke = nullptr,
                               RipEngine::ProcessScratch* scratch = nullptr) {
  return {.src = {part.src.data(), part.src_w, part.rows},
          .strip_src_y = part.src_y,
          .total_src_rows = part.total_rows,
          .channel = part.channel,
          .coverage_plane = {coverage, part.src_w, part.rows},
          .choke = choke,
          .scratch = scratch};
}

/// Rows packed from the bottom up, each twice, with guard bytes between them, hold the same dots.
void expect_packed(RipEngine& engine, const RipEngine::Request& request, const DeviceRowWindow& window,
                   const DropMap& expected) {
  const std::size_t dots = packed_dots_bytes(expected.width), padding = expected.width % 3;
  const std::size_t packed = dots + padding, slot = packed + 3, cycle = 2 * slot;
  std::vector<std::uint8_t> bytes(cycle * window.rows, 0xA5), wanted = bytes;
  for (std::uint32_t row = 0; row < window.rows; ++row) {
    std::uint8_t* const target = wanted.data() + (window.rows - 1 - row) * cycle;
    std::memset(target, 0, packed);
    pack_row(&expected.data[std::size_t{window.top + row} * expected.width], expected.width, target);
    std::memcpy(target + slot, target, packed);
  }
  const PackedRows out{expected.width,
                       bytes.data() + (window.rows - 1) * cycle,
                       -static_cast<std::ptrdiff_t>(cycle),
                       {static_cast<std::ptrdiff_t>(slot)},
                       padding};
  engine.pack_strip(out, request, window);
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
        const auto sets = runnable_instruction_sets();
        const ForcedInstructionSet forced(*sets[random() % sets.size()]);
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
          ChokeContext context;
          const ChokeContext* choke = with_choke ? &context : nullptr;
          const auto screen = [&](const PlainRipEngine::Strip& part) {
            const DropMap bare = plain.screen(part, nullptr);
            context = random_choke(random, bare.width, bare.height);
            return with_choke ? plain.screen(part, choke) : bare;
          };
          const PlainRipEngine::Strip all{plane, width, rows, 0, rows, channel, true};
          DropMap expected = screen(all);
          const DropMap whole = engine.process(request_for(all, coverage, choke, &scratch));
          ASSERT_TRUE(whole.width == expected.width && whole.data == expected.data);

          const PlainRipEngine::Strip part{strip, width, count, first, rows, channel, false};
          expected = screen(part);
          engine.process_strip(strip_out,
                               request_for(part, coverage, choke, variant % 2 == 0 ? &scratch : nullptr));
          ASSERT_TRUE(strip_out.height == expected.height && strip_out.data == expected.data);
          if (expected.height == 0) continue;

          const std::uint32_t top = random() % expected.height;
          expect_packed(engine, request_for(part, coverage, choke),
                        {top, 1 + random() % (expected.height - top)}, expected);
        }
      }
    }
  }
}

/// Neighbouring strips of coarse device rows and nearly equal grids have almost all in common.
TEST(RipEngine, ScratchOfAnotherStripChangesNoDot) {
  const LogCapture quiet(LogLevel::error);
  Random random(3);
  const auto plane = random_plane(random, 20, 40);
  RipEngineParams params = base_params(360, 200);
  params.src_dpi = 1500;
  RipEngine coarse(params);
  params.y_dpi = 205;
  RipEngine finer(params);
  RipEngine::ProcessScratch scratch;
  for (int round = 0; round < 20000; ++round) {
    RipEngine& engine = random() % 2 == 0 ? coarse : finer;
    const std::uint32_t first = random() % 40, count = 1 + random() % (40 - first);
    DropMap kept, fresh;
    for (const auto& [out, memory] : {std::pair(&kept, &scratch), {&fresh, nullptr}})
      engine.process_strip(*out, {.src = {&plane[std::size_t{first} * 20], 20, count},
                                  .strip_src_y = first,
                                  .total_src_rows = 40,
                                  .channel = round / 9 % 2 == 0 ? 0 : 4,
                                  .coverage_plane = {},
                                  .choke = nullptr,
                                  .scratch = memory});
    ASSERT_TRUE(kept.data == fresh.data) << round;
  }
}

/// A whole plane screened without its coverage, or with what a choke needs.
std::vector<std::uint8_t> screened(RipEngine& engine, const std::vector<std::uint8_t>& plane,
                                   std::uint32_t width, std::int32_t channel,
                                   const std::uint8_t* coverage = nullptr,
                                   const ChokeContext* choke = nullptr,
                                   PreThresholdCapture* capture = nullptr) {
  const auto rows = static_cast<std::uint32_t>(plane.size() / width);
  const auto request = request_for({plane, width, rows, 0, rows, channel, true}, coverage, choke);
  return capture != nullptr ? PlainScreening(engine).process(request, *capture).data
                            : engine.process(request).data;
}

/// Device rows between two equal source rows are sums of their own: they differ from their neighbours in the
/// last bit.
TEST(RipEngine, EqualSourceRowsEqualThePlainScreenInEveryValue) {
  const LogCapture quiet(LogLevel::error);
  for (const std::uint32_t y_dpi : {540u, 720u, 1000u, 1800u}) {
    RipEngineParams params = base_params(720, y_dpi);
    params.white_resampling = ResamplingMode::smooth;
    RipEngine engine(params);
    for (int ink = 0; ink < 256; ++ink) {
      const std::vector<std::uint8_t> plane(27 * 30, static_cast<std::uint8_t>(ink));
      const auto drops = screened(engine, plane, 27, 4);
      ASSERT_TRUE(drops == PlainRipEngine(engine).screen({plane, 27, 30, 0, 30, 4, true}, nullptr).data)
          << ink;
      if (y_dpi == 1800 && ink % 85 == 0) {
        EXPECT_THAT(drops, ::testing::Each(ink / 85));
      }
    }
  }
}

/// Settings of an engine that chokes both colour and white.
RipEngineParams choking_params(float amount) {
  RipEngineParams params = base_params();
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = amount;
  params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
  return params;
}

/// What a capture sees goes another way to the same drops.
TEST(RipEngine, ChokesOnlyWhereTheSettingsAskAsTheCaptureShows) {
  const LogCapture quiet(LogLevel::error);
  Random random(11);
  const auto plane = random_plane(random, 30, 12);
  ChokeContext other = random_choke(random, 72, 71);  // of another size, hence left aside
  ChokeContext torn = other, choke = random_choke(random, 72, 72, true);
  torn.height = 72;  // the right size, but its masks lack a row
  const auto production = DeviceChokeAlgorithm::production, adaptive = DeviceChokeAlgorithm::adaptive;
  const struct {
    bool enabled;
    float amount;
    DeviceChokeAlgorithm algorithm;
    WhiteChokeStrategy strategy;
    ResamplingMode white_sampling;
    bool colour, white;
  } cases[] = {{true, 1.0f, adaptive, WhiteChokeStrategy::baseline, ResamplingMode::smooth, true, true},
               {true, 1.0f, adaptive, WhiteChokeStrategy::baseline, ResamplingMode::hard, true, true},
               {true, 1.0f, production, WhiteChokeStrategy::production, ResamplingMode::hard, true, false},
               {true, 1.0f, production, WhiteChokeStrategy::baseline, ResamplingMode::hard, false, false},
               {true, 0.0f, adaptive, WhiteChokeStrategy::production, ResamplingMode::hard, false, false},
               {false, 1.0f, adaptive, WhiteChokeStrategy::production, ResamplingMode::hard, false, false}};
  PreThresholdCapture seen;
  for (const auto& c : cases) {
    RipEngineParams params = choking_params(c.amount);
    params.white_choke_enabled = c.enabled;
    params.white_choke_algorithm = c.algorithm;
    params.white_choke_strategy = c.strategy;
    params.white_resampling = c.white_sampling;
    RipEngine engine(params);
    for (const std::int32_t channel : {2, 4}) {
      const bool colour = channel < 4;
      const std::uint8_t* coverage = colour ? plane.data() : nullptr;
      const auto unchoked = screened(engine, plane, 30, channel);
      EXPECT_TRUE(!colour || screened(engine, plane, 30, channel, nullptr, &choke) == unchoked);
      for (const ChokeContext* given : {&choke, &other, &torn}) {
        const bool applies = given == &choke && (colour ? c.colour : c.white);
        const auto drops = screened(engine, plane, 30, channel, coverage, given);
        EXPECT_EQ(drops != unchoked, applies);
        EXPECT_TRUE(screened(engine, plane, 30, channel, coverage, given, &seen) == drops);
        EXPECT_EQ(seen.device_choke_used, applies);
        EXPECT_EQ(seen.algorithm, !applies ? "rip_pre_threshold_standard"
                                  : colour ? "rip_pre_threshold_device_domain"
                                           : "rip_pre_threshold_device_domain_adaptive_white");
        ASSERT_EQ(seen.values.size(), 72u * 72u);
        const BitPlane& shown = colour ? choke.grown : choke.keep;
        for (std::size_t i = 0; i < seen.values.size(); ++i)
          ASSERT_TRUE(!applies || shown.test(i % 72, i / 72) || seen.values[i] == 0);
      }
    }
  }

  // Halves round up, and nothing else does.
  RipEngineParams params = base_params(300, 300);
  params.linear_lut.resize(1);
  std::vector<std::uint8_t> ramp, rounded;
  for (int ink = 0; ink < 256; ++ink) {
    const float fractions[] = {0.0f, 0.49f, 0.5f, 0.99f};
    params.linear_lut[0].push_back(static_cast<float>(ink) + fractions[ink % 4]);
    ramp.push_back(static_cast<std::uint8_t>(ink));
    rounded.push_back(static_cast<std::uint8_t>(std::min(ink + (ink % 4 >= 2 ? 1 : 0), 255)));
  }
  RipEngine engine(params);
  screened(engine, ramp, 256, 0, nullptr, nullptr, &seen);
  EXPECT_EQ(seen.values, rounded);
}

TEST(RipEngine, ComputesAMissingColourChokeItself) {
  const LogCapture quiet(LogLevel::error);
  Random random(9);
  RipEngineParams params = choking_params(1.5f);
  params.white_choke_adaptive_min_width_dots = 7;
  params.white_choke_adaptive_protect_light_enabled = false;
  RipEngine engine(params);
  const auto plane = random_plane(random, 40, 20);
  const std::vector<std::uint8_t> strip(plane.begin(), plane.begin() + 400);
  const PlaneView ink(strip.data(), 40, 10), all_ink(plane.data(), 40, 20);
  const ChokeContext choke = engine.prepare_device_white({ink, {}, {}, {}, 5, 20});
  DropMap given, computed;
  const PlainRipEngine::Strip part{strip, 40, 10, 5, 20, 0, false};
  engine.process_strip(given, request_for(part, strip.data(), &choke));
  engine.process_strip(computed, request_for(part, strip.data()));
  EXPECT_EQ(choke.height, 60u);
  EXPECT_TRUE(given.data == computed.data);
  PreThresholdCapture seen;
  PlainScreening(engine).process_strip(computed, request_for(part, strip.data(), &choke), seen);
  EXPECT_TRUE(given.data == computed.data && seen.height == 60);
  const ChokeContext white = engine.prepare_device_white({all_ink, {}, all_ink, {}, 0, 20});
  EXPECT_TRUE(white.adaptive && white.min_width_dots == 7 && !white.protect_light);
}

TEST(RipEngine, LogsItsCallsAndChokes) {
  LogCapture log;
  RipEngineParams params = choking_params(1.5f);
  RipEngine special(params);
  params.white_resampling = ResamplingMode::smooth;
  RipEngine smooth(params);
  Random random(1);
  const std::vector<std::uint8_t> plane(700, 9);
  ChokeContext choke = random_choke(random, 24, 60);
  choke.radius_in = 0.005f, choke.radius_px_x = 3.6f, choke.radius_px_y = 9.0f, choke.min_width_dots = 3;
  const std::string amount = " choke pre-threshold amount_px@300=1.5", inches = amount + " radius_in=0.005";
  const std::string dots = " radius_px_x=3.6 radius_px_y=9", width = " min_width_dots=3";
  const std::string nearest = " using white-special nearest-like sampling path";
  const struct {
    RipEngine& engine;
    std::int32_t channel;
    std::string of_plane, of_strip;
  } cases[] = {
      {smooth, 3, " applying device-domain" + inches + dots, " device-domain" + amount + dots},
      {smooth, 4, " applying adaptive white" + inches + width, " adaptive white" + amount + dots + width},
      {special, 4, nearest, nearest}};
  for (const auto& c : cases) {
    const std::string channel = " ch=" + std::to_string(c.channel), start = "[INFO ] RipEngine" + channel;
    DropMap out;
    log.take();
    const auto request = request_for({plane, 10, 10, 0, 10, c.channel, true}, plane.data(), &choke);
    c.engine.process(request);
    c.engine.process_strip(out, request);
    EXPECT_THAT(log.take(), ElementsAre(start + " src=10x10 dev=24x60", start + c.of_plane, start + " done.",
                                        "[DEBUG] RipEngine strip" + channel + c.of_strip));
  }
  screened(smooth, plane, 1, 2);
  EXPECT_THAT(log.take(), testing::Contains("[DEBUG]   ch=2 row 4000/4200"));
}

TEST(RipEngine, MendsCurves) {
  const LogCapture log;
  RipEngineParams params = base_params();
  const auto defaults = RipEngine(params).params().linear_lut;
  ASSERT_EQ(defaults.size(), 5u);
  EXPECT_EQ(defaults[2][100], std::pow(100.0f / 255.0f, 1.4f) * 190.0f);
  EXPECT_EQ(defaults[4][77], 77.0f);

  params.linear_lut.assign(2, std::vector<float>(256, 9.0f));
  params.linear_lut[0].resize(255);
  const float infinity = std::numeric_limits<float>::infinity();
  std::ranges::copy(std::vector{std::nanf(""), infinity, -5.0f, 256.0f}, params.linear_lut[1].begin());
  const auto mended = RipEngine(params).params().linear_lut;
  EXPECT_TRUE(
      log.contains("[WARN ] RipEngine: linear_lut channel 0 has 255 values; replacing with identity "
                   "256-entry LUT"));
  EXPECT_EQ(mended[0][200], 200.0f);
  EXPECT_THAT(std::vector(mended[1].begin(), mended[1].begin() + 5),
              ElementsAre(0.0f, 0.0f, 0.0f, 255.0f, 9.0f));
  EXPECT_EQ(mended.size(), 5u);
}

TEST(RipEngine, RejectsWhatItCannotScreen) {
  const LogCapture quiet(LogLevel::error);
  RipEngine engine(base_params());
  const std::uint8_t pixels[4] = {};
  DropMap out{1, 1, {7}};
  const auto build = [](std::uint32_t src, std::uint32_t x, std::uint32_t y, std::int32_t channels) {
    RipEngineParams params = base_params(x, y);
    params.src_dpi = src;
    params.n_channels = channels;
    return failure_of([&] { const RipEngine built(params); });
  };
  const auto plane = [&](const std::uint8_t* src, std::uint32_t w, std::uint32_t h, std::int32_t channel) {
    RipEngine::Request request;
    request.src = {src, w, h};
    request.channel = channel;
    return failure_of([&] { engine.process(request); });
  };
  const auto strip = [&](std::uint32_t w, std::uint32_t rows, std::uint32_t y, std::uint32_t total,
                         std::int32_t channel = 0, const DeviceRowWindow& window = {}) {
    RipEngine::Request request;
    request.src = {pixels, w, rows};
    request.strip_src_y = y;
    request.total_src_rows = total;
    request.channel = channel;
    return failure_of([&] { engine.process_strip(out, request, window.rows != 0 ? &window : nullptr); });
  };
  const std::string dpi = "RipEngine: src_dpi/x_dpi/y_dpi must be > 0", in_plane = "RipEngine::process: ",
                    in_strip = "RipEngine::process_strip: ", cap = "DropMap: allocation exceeds 2 GiB cap";
  const std::pair<std::string, std::string> cases[] = {
      {build(0, 720, 1800, 5), dpi},
      {build(300, 0, 1800, 5), dpi},
      {build(300, 720, 0, 0), dpi},
      {build(300, 720, 1800, 0), "RipEngine: n_channels must be > 0"},
      {plane(nullptr, 2, 2, 9), in_plane + "invalid source buffer"},
      {plane(pixels, 0, 2, 0), in_plane + "invalid source buffer"},
      {plane(pixels, 2, 0, 0), in_plane + "invalid source buffer"},
      {plane(pixels, 2, 2, -1), in_plane + "channel out of range"},
      {plane(pixels, 2, 2, 5), in_plane + "channel out of range"},
      {strip(0, 1, 0, 1, 9), in_strip + "invalid source strip"},
      {strip(1, 0, 0, 1), in_strip + "invalid source strip"},
      {strip(1, 1, 9, 0), in_strip + "invalid source strip"},
      {strip(1, 1, 9, 1, 5), in_strip + "channel out of range"},
      {strip(1, 1, 1, 1), in_strip + "strip source bounds are invalid"},
      {strip(1, 2, 3, 4), in_strip + "strip source bounds are invalid"},
      {strip(1, 0xffffffff, 1, 0xffffffff), in_strip + "strip source bounds are invalid"},
      {strip(1, 1, 0, 1, 0, {5, 2}), in_strip + "device row window is invalid"},
      {strip(1, 1, 0, 1, 0, {1, 0xffffffff}), in_strip + "device row window is invalid"},
      {strip(1u << 30, 1, 0, 1), cap},
      {failure_of([] { checked_drop_map_bytes(kMaxDropMapBytes + 1, 1); }), cap},
      {failure_of([] { checked_drop_map_bytes(1ull << 33, 1ull << 31); }),
       "DropMap: allocation size overflow"},
  };
  for (const auto& [failure, expected] : cases) EXPECT_EQ(failure, expected);
  EXPECT_EQ(out.data, std::vector<std::uint8_t>{7});
  EXPECT_EQ(checked_drop_map_bytes(0x10000, 0x8000), kMaxDropMapBytes);
}

}  // namespace
}  // namespace nvo
