#include "compose/sampling.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "compose/ink_rows.h"

namespace nvo {
namespace {

TEST(AxisMaps, OneToOneFallsOnSamplesWhateverTheSize) {
  for (const std::uint32_t n : {2u, 3u, 1000u, 65537u, 4000000000u})
    for (const std::uint32_t i : {0u, 1u, n / 3, n - 2, n - 1}) {
      const AxisSample map = map_axis_bilinear(i, n, n);
      EXPECT_EQ(map.lo, i) << n;
      EXPECT_EQ(map.frac, 0.0f) << n;
      const AxisSpan span = map_axis_box(i, n, n);
      EXPECT_EQ(span.start, i);
      EXPECT_EQ(span.end, i + 1);
    }
}

TEST(AxisMaps, EdgesAndTies) {
  struct Case {
    std::uint32_t i, n, s, lo, hi, nearest;
    float frac;
    std::uint32_t start, end;
  };
  for (const Case& c : {Case{0, 4, 2, 0, 1, 0, 0.0f, 0, 1}, Case{1, 4, 2, 0, 1, 0, 0.25f, 0, 1},
                        Case{2, 4, 2, 0, 1, 1, 0.75f, 1, 2}, Case{3, 4, 2, 1, 1, 1, 0.0f, 1, 2},
                        Case{0, 2, 4, 0, 1, 1, 0.5f, 0, 2}, Case{1, 2, 4, 2, 3, 3, 0.5f, 2, 4},
                        Case{1, 2, 3, 1, 2, 2, 0.75f, 1, 3}, Case{5, 9, 1, 0, 0, 0, 0.0f, 0, 1},
                        Case{0, 0, 5, 0, 0, 0, 0.0f, 0, 0}, Case{0, 5, 0, 0, 0, 0, 0.0f, 0, 0}}) {
    const AxisSample map = map_axis_bilinear(c.i, c.n, c.s);
    EXPECT_EQ(map.lo, c.lo) << c.i << " of " << c.n << " on " << c.s;
    EXPECT_EQ(map.hi, c.hi) << c.i << " of " << c.n << " on " << c.s;
    EXPECT_EQ(map.frac, c.frac) << c.i << " of " << c.n << " on " << c.s;
    EXPECT_EQ(map.nearest(), c.nearest) << c.i << " of " << c.n << " on " << c.s;
    const AxisSpan span = map_axis_box(c.i, c.n, c.s);
    EXPECT_EQ(span.start, c.start) << c.i << " of " << c.n << " on " << c.s;
    EXPECT_EQ(span.end, c.end) << c.i << " of " << c.n << " on " << c.s;
  }
}

TEST(Bilinear, WeighsTheFourSamples) {
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 0.0f, 0.0f), 10);
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 1.0f, 0.0f), 20);
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 0.0f, 1.0f), 30);
  EXPECT_EQ(bilinear_byte(10, 20, 30, 40, 0.5f, 0.5f), 25);
  EXPECT_EQ(bilinear_byte(0, 1, 0, 1, 0.5f, 0.3f), 1) << "half rounds up";
  EXPECT_EQ(bilinear_linear_light(0, 255, 0, 255, 0.5f, 0.0f), 188) << "half the light";
}

TEST(Bilinear, EqualSamplesMixToThemselves) {
  std::mt19937 random(3);
  const auto fraction = [&] {
    return static_cast<float>(random()) / static_cast<float>(std::mt19937::max());
  };
  for (int i = 0; i < 2000; ++i) {
    const float fx = fraction();
    const float fy = fraction();
    for (unsigned v = 0; v < 256; ++v) {
      const auto p = static_cast<std::uint8_t>(v);
      ASSERT_EQ(bilinear_byte(p, p, p, p, fx, fy), p) << fx << ", " << fy;
    }
  }
}

TEST(LinearLight, EveryByteComesBackUnchanged) {
  const LinearLight& curve = LinearLight::instance();
  EXPECT_TRUE(curve.round_trip_is_identity());
  for (unsigned byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(srgb_from_linear(curve.decode_table()[byte]), byte);
    EXPECT_EQ(curve.encode(curve.decode_table()[byte]), byte);
  }
}

TEST(LinearLight, TableEncodesAsTheFormulaDoes) {
  const LinearLight& curve = LinearLight::instance();
  const auto expect_equal = [&](float light) {
    if (light < 0.0f || light > 1.0f) return;
    ASSERT_EQ(curve.encode(light), srgb_from_linear(light)) << std::hexfloat << light;
  };
  // The neighbours of every point where the byte changes, found anew by halving.
  for (int byte = 1; byte < 256; ++byte) {
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
  expect_equal(std::numeric_limits<float>::denorm_min());
  std::mt19937 random(5);
  for (int i = 0; i < 100000; ++i)
    expect_equal(static_cast<float>(random()) / static_cast<float>(std::mt19937::max()));
}

TEST(InkRows, PremultiplyIsTheRoundedQuotient) {
  std::vector<std::uint8_t> alpha(256), ink(256);
  for (unsigned value = 0; value < 256; ++value) {
    for (unsigned a = 0; a < 256; ++a)
      alpha[a] = static_cast<std::uint8_t>(a), ink[a] = static_cast<std::uint8_t>(value);
    premultiply(alpha.data(), alpha.size(), ink.data());
    for (unsigned a = 0; a < 256; ++a) ASSERT_EQ(ink[a], (value * a + 127) / 255) << value << " x " << a;
  }
}

}  // namespace
}  // namespace nvo
