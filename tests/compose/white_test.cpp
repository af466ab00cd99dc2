// What happens to white after composition: the choke on the source grid, the ink limit, the classification.

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "compose/source_grid_choke.h"
#include "compose/white_underbase.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"

namespace nvo {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using Bytes = std::vector<std::uint8_t>;
using Strategy = WhiteChokeStrategy;
constexpr auto kSteps = Strategy::baseline;
constexpr auto kDistance = Strategy::legacy_same_grid_distance_mask;

/// Rows end with '/'. A letter is ink of its own colour, '.' faint noise, '#' explicit white with ink below
/// it.
StripBuffer draw(const std::string& rows) {
  StripBuffer strip;
  for (const char c : rows) {
    if (c == '/') ++strip.height;
    if (c == '/') continue;
    for (int plane = 0; plane < 5; ++plane)
      strip.planes[plane].push_back(static_cast<std::uint8_t>(c == '.' ? plane % 3 : c + plane));
    strip.explicit_white.push_back(c == '#' ? 255 : 0);
  }
  strip.width = static_cast<std::uint32_t>(strip.explicit_white.size() / strip.height);
  return strip;
}

/// White, and what is drawn of the four inks.
std::string spread(const std::string& before, Strategy strategy, float radius) {
  StripBuffer strip = draw(before);
  Bytes mask_before, mask_after;
  apply_source_grid_choke(strip, 600, radius / 2, strategy, &mask_before, &mask_after);
  EXPECT_EQ(mask_before, build_ink_mask(draw(before), 2));
  EXPECT_EQ(mask_after, build_ink_mask(strip, 2));
  std::string after;
  for (const std::uint8_t cyan : strip.planes[0]) {
    after += cyan ? static_cast<char>(cyan) : '.';
    if ((after.size() + 1) % (strip.width + 1) == 0) after += '/';
  }
  strip.planes[4] = draw(after).planes[4];
  EXPECT_EQ(strip.planes, draw(after).planes) << "the inks of a pixel belong together";
  return after;
}

TEST(SourceGridChoke, SpreadsColourIntoItsSurroundings) {
  const struct {
    Strategy strategy;
    float radius;
    const char *before, *after;
  } cases[] = {
      {kSteps, 2, "......./......./...a.../......./", ".aaaaa./.aaaaa./.aaaaa./.aaaaa./"},
      {kSteps, 1.0001f, "a.../", "aa../"},
      {kSteps, 1.001f, "a.../", "aaa./"},
      {kSteps, 0.0001f, "a.../", "aa../"},
      {kSteps, 2, "..b/a../.../", "abb/abb/aab/"},  // the lower index wins
      {kSteps, 3, "a#../", "a#../"},
      {kSteps, 3, "a#.../...../", "a#aa./aaaa./"},  // finds its way past a barrier
      {kSteps, 2, ".#./.../", ".#./.../"},
      {kDistance, 2, "a#../..../", "a#a./aaa./"},
      {kDistance, 2, ".../", ".../"},
      {static_cast<Strategy>(9), 1, "a../", "aa./"},
      {Strategy::production, 5, "a../", "a../"},
      {kSteps, 0, "a../", "a../"},
      {kSteps, -2, "a../", "a../"},
      {kDistance, NAN, "a../", "a../"},
      {kSteps, INFINITY, "a../", "aaa/"},
      {kDistance, INFINITY, "a../", "aaa/"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(spread(c.before, c.strategy, c.radius), c.after)
        << choke_strategy_name(c.strategy) << " " << c.radius << " " << c.before;
}

TEST(SourceGridChoke, DistanceSpreadFindsTheNearestInk) {
  constexpr int kWidth = 31, kSize = 24 * (kWidth + 1);
  // Where nothing is in the way the spread comes to this: every pixel looks at all ink.
  const auto by_looking_everywhere = [](const std::string& before, float radius) {
    std::string after = before;
    for (int i = 0; i < kSize; ++i) {
      for (int o = 0, best = 1 << 30; o < kSize && before[i] == '.'; ++o) {
        const int dx = std::abs(i % (kWidth + 1) - o % (kWidth + 1));
        const int dy = std::abs(i / (kWidth + 1) - o / (kWidth + 1));
        if (before[o] == '.' || before[o] == '/' || dx * dx + dy * dy >= best) continue;
        best = dx * dx + dy * dy;
        after[i] = std::hypot(std::fdim(dx, 0.5), std::fdim(dy, 0.5)) <= radius + 1e-5 ? before[o] : '.';
      }
    }
    return after;
  };
  std::minstd_rand random(3);
  for (int round = 0; round < 60; ++round) {
    std::string strip;
    while (strip.size() < kSize) strip += std::string(kWidth, '.') + "/";
    for (int dot = 0; dot <= round; ++dot)
      strip[random() % 24 * (kWidth + 1) + random() % kWidth] = static_cast<char>('a' + dot % 26);
    for (const float radius : {0.4f, 1.0f, 1.5f, 2.0f, 3.3f, 5.0f})
      ASSERT_EQ(spread(strip, kDistance, radius), by_looking_everywhere(strip, radius)) << radius;
  }
}

TEST(SourceGridChoke, StrategiesHaveTokens) {
  constexpr auto kFallback = static_cast<Strategy>(7);
  EXPECT_EQ(parse_choke_strategy("\tBUILD_1009\n", kFallback), kSteps);
  EXPECT_EQ(parse_choke_strategy("Distance-Mask", kFallback), kDistance);
  EXPECT_EQ(parse_choke_strategy("RIP \x01 domain.", kFallback), Strategy::production);
  for (const char* text : {"", "b\xC3\xA4seline", choke_strategy_name(kDistance)})  // a name to print only
    EXPECT_EQ(parse_choke_strategy(text, kFallback), kFallback) << text;
  const test::ScopedVariable variable("NVO_WHITE_CHOKE_STRATEGY", "baseline");
  EXPECT_EQ(choke_strategy_from_environment(true), kSteps);
  EXPECT_EQ(choke_strategy_from_environment(false), Strategy::production);
}

struct Pixel {
  std::uint8_t c, m, y, k, w;
  std::uint8_t explicit_white = 0;
};

StripBuffer strip_of(const std::vector<Pixel>& pixels) {
  StripBuffer strip;
  strip.width = static_cast<std::uint32_t>(pixels.size());
  strip.height = 1;
  for (const Pixel& p : pixels) {
    const std::uint8_t values[] = {p.c, p.m, p.y, p.k, p.w};
    for (std::size_t i = 0; i < 5; ++i) strip.planes[i].push_back(values[i]);
    strip.explicit_white.push_back(p.explicit_white);
  }
  return strip;
}

TEST(WhiteUnderbase, LimitsWhiteByTheInkOfThePixel) {
  const struct {
    std::vector<Pixel> pixels;
    Bytes white;
    float budget = 300, max_white = 400, min_white = 10;
  } cases[] = {{{{0, 0, 0, 0, 255}, {255, 255, 255, 255, 255}, {0, 0, 0, 0, 128}}, {191, 6, 128}},
               // Opaque: ink alone tells what is printed. With transparency coverage tells it too.
               {{{2, 2, 2, 2, 255}, {0, 3, 0, 0, 255}, {0, 0, 0, 255, 255}}, {0, 191, 128}},
               {{{2, 0, 0, 0, 255}, {0, 0, 0, 0, 0}, {9, 0, 0, 0, 0}}, {191, 0, 0}},
               {{{255, 255, 255, 255, 200, 255}, {9, 0, 0, 0, 7, 1}}, {200, 7}},
               {{{9, 0, 0, 0, 255}, {9, 0, 0, 0, 7, 255}}, {0, 7}, 300, 0},
               {{{9, 0, 0, 0, 255}}, {0}, 0, 400, 0},
               {{{255, 255, 255, 255, 255}, {0, 0, 0, 0, 77}}, {255, 77}, 900},
               {{{3, 0, 0, 0, 255}}, {255}, 300, 100, 250},
               // On rounding edges: one less in wider arithmetic.
               {{{23, 124, 81, 135, 121}, {187, 133, 144, 95, 255}}, {101, 52}},
               {{{9, 0, 0, 0, 255}, {9, 0, 0, 0, 0}}, {0, 0}, INFINITY, INFINITY}};
  for (const auto& c : cases) {
    StripBuffer strip = strip_of(c.pixels);
    apply_white_underbase(strip, 300, {{{true, c.budget, c.max_white, c.min_white}}});
    EXPECT_THAT(strip.planes[4], ElementsAreArray(c.white));
  }
}

TEST(WhiteUnderbase, LimitsBeforeColourSpreads) {
  WhiteUnderbaseParams params{{{.white_ink_limit_enabled = true}}, true, 1.0f, WhiteChokeStrategy::baseline};
  const StripBuffer before = strip_of({{9, 0, 0, 0, 255}, {0, 0, 0, 0, 255}});
  StripBuffer strip = before;
  apply_white_underbase(strip, 300, params);
  EXPECT_THAT(strip.planes[0], ElementsAre(9, 9));
  EXPECT_THAT(strip.planes[4], ElementsAre(189, 0));

  params.choke_strategy = WhiteChokeStrategy::production;
  params.white_ink_limit_enabled = false;
  strip = before;
  apply_white_underbase(strip, 300, params);
  EXPECT_EQ(strip.planes, before.planes);
}

/// Gray and a second channel that is clean but for `value`. From `bad_row` on reads fail, or stop short.
struct FakeSource : RasterSource {
  FakeSource(ChannelRole role, std::uint8_t odd_value, std::uint32_t bad = 600, bool is_short = false)
      : value(odd_value), bad_row(bad), short_reads(is_short) {
    meta.width = 3;
    meta.height = 600;
    meta.channel_count = 2;
    meta.channels = {{ChannelRole::none, "Gray", 0}, {role, "", 1}};
  }
  const ImageMeta& metadata() const override { return meta; }
  bool supports_row_reads() const override { return row_reads; }
  std::string read_strategy() const override { return {}; }
  bool read_rows(std::uint32_t y, std::uint32_t rows, Bytes& out, std::string* error) override {
    ++reads;
    out.assign(rows * 6, 4);
    for (std::size_t i = 0; i < out.size(); i += 2) out[i] = 128;
    out[1] = value;
    if (y + rows <= bad_row) return true;
    out.pop_back();
    *error = "broken row";
    return short_reads;
  }
  bool read_region(const RasterRegion&, Bytes&, std::string*) override { return false; }
  RasterReadStats stats() const override { return {}; }

  ImageMeta meta;
  std::uint8_t value;
  std::uint32_t bad_row;
  bool short_reads, row_reads = true;
  int reads = 0;
};

TEST(CoverageIsBinary, UnlessAByteIsGraded) {
  LoadedImage image;
  EXPECT_FALSE(coverage_is_binary(image)) << "no pixels";
  image.width = image.height = 100;
  for (const auto& [value, binary] : {std::pair(4, true), {5, false}, {250, false}, {251, true}}) {
    const auto byte = static_cast<std::uint8_t>(value);
    for (const std::size_t at : {0, 4095, 4096, 9999}) {
      image.white_coverage.assign(10000, 255);
      image.white_coverage[at] = byte;
      EXPECT_EQ(coverage_is_binary(image), binary) << value << " at " << at;
    }
    FakeSource white(ChannelRole::white, byte), alpha(ChannelRole::alpha, byte);
    FakeSource spot(ChannelRole::spot, byte);
    EXPECT_EQ(coverage_is_binary(white, "p"), binary) << value;
    EXPECT_EQ(coverage_is_binary(alpha, "p"), binary) << value;
    EXPECT_EQ(alpha.reads, binary ? 3 : 1);
    EXPECT_TRUE(coverage_is_binary(spot, "p"));
    alpha.meta.channels[1].index = 2;
    EXPECT_TRUE(coverage_is_binary(alpha, "p")) << "a channel that no pixel has";
  }
  // Nor where a source cannot be scanned.
  test::LogCapture log;
  FakeSource no_rows(ChannelRole::alpha, 0), failing(ChannelRole::alpha, 0, 300);
  FakeSource stopping(ChannelRole::alpha, 0, 300, true);
  no_rows.row_reads = false;
  EXPECT_FALSE(coverage_is_binary(no_rows, "c.tif") || coverage_is_binary(failing, "a.tif") ||
               coverage_is_binary(stopping, "b.tif"));
  const std::string start = "[WARN ] StripCompositor: white coverage classification ";
  EXPECT_THAT(log.take(), ElementsAre(start + "row read failed for 'a.tif': broken row",
                                      start + "short row read for 'b.tif'"));
}

}  // namespace
}  // namespace nvo
