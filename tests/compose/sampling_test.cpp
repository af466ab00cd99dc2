#include "compose/sampling.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "compose/ink_rows.h"

namespace nvo {
namespace {

TEST(AxisMaps, EdgesAndTies) {
  struct Case {
    std::uint32_t i, n, s, lo, hi, nearest;
    float frac;
    std::uint32_t start, end;
  };
  std::vector<Case> cases = {{0, 4, 2, 0, 1, 0, 0.0f, 0, 1},  {1, 4, 2, 0, 1, 0, 0.25f, 0, 1},
                             {2, 4, 2, 0, 1, 1, 0.75f, 1, 2}, {3, 4, 2, 1, 1, 1, 0.0f, 1, 2},
                             {0, 2, 4, 0, 1, 1, 0.5f, 0, 2},  {1, 2, 4, 2, 3, 3, 0.5f, 2, 4},
                             {1, 2, 3, 1, 2, 2, 0.75f, 1, 3}, {5, 9, 1, 0, 0, 0, 0.0f, 0, 1},
                             {0, 0, 5, 0, 0, 0, 0.0f, 0, 0},  {0, 5, 0, 0, 0, 0, 0.0f, 0, 0}};
  for (const std::uint32_t n : {2u, 3u, 1000u, 65537u, 4000000000u})  // 1:1 falls on samples
    for (const std::uint32_t i : {0u, 1u, n / 3, n - 2, n - 1})
      cases.push_back({i, n, n, i, std::min(i + 1, n - 1), i, 0.0f, i, i + 1});
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.i << " of " << c.n << " on " << c.s);
    const AxisSample map = map_axis_bilinear(c.i, c.n, c.s);
    const AxisSpan span = map_axis_box(c.i, c.n, c.s);
    EXPECT_EQ(std::tuple(map.lo, map.hi, map.nearest(), map.frac, span.start, span.end),
              std::tuple(c.lo, c.hi, c.nearest, c.frac, c.start, c.end));
  }
}

TEST(Bilinear, WeighsTheFourSamples) {
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 1.0f, 0.0f), 20);
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 0.0f, 1.0f), 30);
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 0.5f, 0.5f), 25);
  EXPECT_EQ(bilinear_byte(0, 1, 0, 1, 0.5f, 0.3f), 1) << "half rounds up";
  EXPECT_EQ(bilinear_linear_light(0, 255, 0, 255, 0.5f, 0.0f), 188) << "half the light";
  std::mt19937 random(3);
  std::uniform_real_distribution<float> fraction;
  for (int i = 0; i < 2000; ++i) {
    const float fx = fraction(random), fy = fraction(random);
    for (int v = 0; v < 256; ++v) {
      const auto p = static_cast<std::uint8_t>(v);
      ASSERT_EQ(bilinear_byte(p, p, p, p, fx, fy), p) << "equal samples at " << fx << ", " << fy;
    }
  }
}

TEST(LinearLight, TableEncodesAsTheFormulaDoes) {
  const LinearLight& curve = LinearLight::instance();
  EXPECT_TRUE(curve.round_trip_is_identity());
  const auto expect_equal = [&](float light) {
    if (light < 0.0f || light > 1.0f) return;
    ASSERT_EQ(curve.encode(light), srgb_from_linear(light)) << std::hexfloat << light;
  };
  // The neighbours of every point where the byte changes, found anew by halving.
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(srgb_from_linear(curve.decode_table()[byte]), byte);
    float below = 0.0f, reached = 1.0f;
    while (std::nextafter(below, 1.0f) < reached) {
      const float middle = below + (reached - below) / 2;
      (srgb_from_linear(middle) >= byte ? reached : below) = middle;
    }
    float light = reached;
    for (int i = 0; i < 200; ++i) expect_equal(light), light = std::nextafter(light, 0.0f);
    for (int i = 0; i < 400; ++i) expect_equal(light), light = std::nextafter(light, 2.0f);
  }
  for (int cell = 0; cell <= 8192; ++cell) {
    const float light = static_cast<float>(cell) / 8192.0f;
    for (const float v : {std::nextafter(light, -1.0f), light, std::nextafter(light, 2.0f)}) expect_equal(v);
  }
  std::mt19937 random(5);
  for (int i = 0; i < 100000; ++i) expect_equal(std::uniform_real_distribution<float>()(random));
}

TEST(InkRows, PremultiplyIsTheRoundedQuotient) {
  std::vector<std::uint8_t> alpha(256);
  std::iota(alpha.begin(), alpha.end(), std::uint8_t{0});
  for (unsigned value = 0; value < 256; ++value) {
    std::vector<std::uint8_t> ink(256, static_cast<std::uint8_t>(value));
    premultiply(alpha.data(), alpha.size(), ink.data());
    for (unsigned a = 0; a < 256; ++a) ASSERT_EQ(ink[a], (value * a + 127) / 255) << value << " x " << a;
  }
}

}  // namespace
}  // namespace nvo
