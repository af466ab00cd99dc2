#include "compose/source_grid_choke.h"

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/scoped_variable.h"

namespace nvo {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Strategy = WhiteChokeStrategy;
constexpr auto kSteps = Strategy::baseline;
constexpr auto kDistance = Strategy::legacy_same_grid_distance_mask;

/// Rows end with '/'. A letter is ink of its own colour, '.' faint noise, '#' explicit white with ink below
/// it.
StripBuffer draw(const std::string& rows) {
  StripBuffer strip;
  strip.planes.resize(5);
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
      {kSteps, 1.001f, "a.../", "aaa./"},
      {kSteps, 2, "..b/a../.../", "abb/abb/aab/"},  // the lower index wins
      {kSteps, 3, "a#../", "a#../"},
      {kSteps, 3, "a#.../...../", "a#aa./aaaa./"},  // finds its way past a barrier
      {kSteps, 1, ".#./.../", ".#./.../"},
      {kSteps, 2, ".../.../", ".../.../"},
      {kDistance, 2, "......./......./......./...a.../......./", "......./..aaa../.aaaaa./.aaaaa./.aaaaa./"},
      {kDistance, 1.5f, "a.../..../..../", "aaa./aa../a.../"},
      {kDistance, 1, "..b/a../.../", "abb/aab/aa./"},
      {kDistance, 1, "b.a/", "bba/"},
      {kDistance, 2, "a#../..../", "a#a./aaa./"},
      {kDistance, 2, ".../", ".../"},
      {static_cast<Strategy>(9), 1, "a../", "aa./"},
      {Strategy::production, 5, "a../", "a../"},
      {kSteps, 0, "a../", "a../"},
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

TEST(SourceGridChoke, RadiiAndTokens) {
  const std::pair<float, std::uint32_t> radii[] = {{-2, 0},     {NAN, 0}, {0.0001f, 1},       {1.0001f, 1},
                                                   {1.001f, 2}, {5, 5},   {1e10f, 0xFFFFFFFF}};
  for (const auto& [radius, pixels] : radii) EXPECT_EQ(choke_radius_px(radius), pixels) << radius;
  EXPECT_EQ(choke_radius_runtime(0, 1.5f), 0.0f);

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

}  // namespace
}  // namespace nvo
