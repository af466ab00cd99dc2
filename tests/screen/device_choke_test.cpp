#include "screen/device_choke.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "screen/choke_offsets.h"
#include "screen/plain_device_choke.h"

namespace nvo {
namespace {

using test::PlainChoke;
using Bytes = std::vector<std::uint8_t>;

TEST(ChokeOffsets, AreTheOctileDiscFromNearToFar) {
  const auto displacement = [](const ChokeOffset& o) { return std::pair(o.dx, o.dy); };
  // 720 x 1800: steps of 5 and 2 in units of 1/3600 inch, sqrt(29) = 5.385 diagonally.
  std::vector<std::pair<int, int>> listed;
  for (const ChokeOffset& o : choke_offsets(720, 1800, 6.0f / 3600.0f)) listed.push_back(displacement(o));
  const std::vector<std::pair<int, int>> expected = {{0, 0},  {0, -1}, {0, 1},   {0, -2}, {0, 2},
                                                     {-1, 0}, {1, 0},  {-1, -1}, {1, -1}, {-1, 1},
                                                     {1, 1},  {0, -3}, {0, 3}};
  EXPECT_EQ(listed, expected);
  // The radius itself is inside though f32 rounds it; coinciding distances share a group by another way round
  // too: at 720 x 540 a diagonal step is 5, straight ones are 3 and 4 units of 1/2160 inch.
  const auto oblong = choke_offsets(720, 540, 15.0f / 2160.0f);
  const auto group_of = [&](int dx, int dy) {
    return std::ranges::find(oblong, std::pair(dx, dy), displacement)->group;
  };
  EXPECT_EQ(group_of(3, 3), group_of(-5, 0));
  EXPECT_EQ(group_of(1, -2), group_of(3, 0));
  EXPECT_NE(group_of(0, 1), group_of(1, 0));
  // Far along either axis.
  for (const auto& [x_dpi, y_dpi] : {std::pair{360u, 3600u}, {720u, 1800u}, {720u, 360u}}) {
    const auto offsets = choke_offsets(x_dpi, y_dpi, 2.5f / 300.0f);
    EXPECT_EQ(std::ranges::max(offsets, {}, &ChokeOffset::dx).dx, static_cast<int>(x_dpi * 2.5 / 300));
    EXPECT_EQ(std::ranges::min(offsets, {}, &ChokeOffset::dy).dy, -static_cast<int>(y_dpi * 2.5 / 300));
  }
}

struct Source {
  std::uint32_t width, rows;
  Bytes coverage, white, exempt, light;
  Source(std::uint32_t w, std::uint32_t h) : width(w), rows(h) {
    for (Bytes* plane : {&coverage, &white, &exempt, &light}) plane->assign(std::size_t{w} * h, 0);
  }
  /// All of it, with each of its planes.
  DeviceChokeInput input() const {
    return {coverage.data(), exempt.data(), white.data(), light.data(), width, rows, 0, rows};
  }
};

/// Discs with soft edges, lines of one to three pixels and speckle, so that wide, thin and tiny features
/// meet.
Source make_art(std::uint32_t width, std::uint32_t rows, std::uint32_t seed) {
  Source art(width, rows);
  std::mt19937 random(seed);
  const auto below = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random()) % n; };
  const auto ink = [&](std::uint32_t x, std::uint32_t y, std::uint8_t value) {
    const std::size_t i = std::size_t{y} * width + x;
    art.coverage[i] = value;
    art.white[i] = below(12) == 0 ? 0 : value;
    art.light[i] = x > width / 2 && below(3) != 0 ? 255 : 0;
    art.exempt[i] = (x < width / 4 && y > rows / 2) || below(8) == 0 ? 255 : 0;
  };
  for (int disc = 0; disc < 4; ++disc) {
    const double cx = below(width), cy = below(rows), radius = 1 + below(width / 3 + 1);
    for (std::uint32_t y = 0; y < rows; ++y)
      for (std::uint32_t x = 0; x < width; ++x) {
        const double depth = radius - std::hypot(x - cx, y - cy);
        if (depth > 0) ink(x, y, static_cast<std::uint8_t>(std::min(depth * 2.0, 255.0)));
      }
  }
  for (std::uint32_t line = 0; line < 4; ++line) {
    const std::uint32_t at = below(std::min(width, rows)), thick = 1 + line % 3;
    for (std::uint32_t k = at; k < at + thick; ++k) {
      for (std::uint32_t y = 0; y < rows && k < width && line % 2 == 0; ++y) ink(k, y, 200);
      for (std::uint32_t x = 0; x < width && k < rows && line % 2 == 1; ++x) ink(x, k, 200);
    }
  }
  for (std::uint32_t dot = 0; dot < width * rows / 40; ++dot)
    ink(below(width), below(rows), static_cast<std::uint8_t>(below(6)));
  return art;
}

/// Source resolution and device resolution across and along.
struct Mode {
  std::uint32_t src_dpi, x_dpi, y_dpi;
};

DeviceChokeParams params_of(const Mode& mode, float amount, std::uint32_t min_width, std::uint32_t threads) {
  return {.src_dpi = mode.src_dpi,
          .x_dpi = mode.x_dpi,
          .y_dpi = mode.y_dpi,
          .amount_px_at_300dpi = amount,
          .min_width_dots = min_width,
          .threads = threads};
}

TEST(DeviceChoke, EqualsTheReference) {
  constexpr Mode kModes[] = {{300, 720, 1800}, {300, 360, 3600}, {300, 720, 900}, {300, 360, 540},
                             {300, 720, 720},  {300, 360, 1200}, {300, 720, 540}, {600, 720, 1800},
                             {600, 720, 900},  {600, 360, 360}};
  const float amounts[] = {0.1f, 1.5f, 2.5f, 0.7f, 1.0f, 2.0f};
  const std::uint32_t min_widths[] = {3, 0, 16, 2, 7}, thread_counts[] = {1, 2, 3, 5};
  ChokeContext context;
  for (std::uint32_t round = 0; round < 48 * std::size(kModes); ++round) {
    const std::uint32_t variant = round % 48, total = 44, rows = variant % 3 == 0 ? total : 23;
    const Source art = make_art(29 + round * 7 % 40, rows, round);
    DeviceChokeInput input = art.input();
    if (variant % 2 == 0) input.exempt_mask = nullptr;
    if (variant % 4 == 3) input.support_plane = nullptr;
    if (variant / 2 % 2 == 0) input.light_mask = nullptr;
    input.strip_src_y = variant % 3 * ((total - rows) / 2);  // top, middle or bottom of the plane
    input.total_src_rows = total;
    DeviceChokeParams params =
        params_of(kModes[round / 48], amounts[round % 6], min_widths[round % 5], thread_counts[round % 4]);
    params.adaptive = variant % 8 < 6;
    params.protect_light = variant % 5 != 0;
    context = prepare_device_choke(input, params, std::move(context));  // in the last one's memory
    EXPECT_TRUE(PlainChoke(context) == PlainChoke(input, params)) << "round " << round;
  }
}

TEST(DeviceChoke, HoldsAtOddSizesAndSettings) {
  // Widths about the word size, a reach beyond the plane and beyond a word, runs longer than a word, a
  // minimum width beyond any run, more than one source pixel a dot.
  const struct {
    std::uint32_t width, rows;
    Mode mode;
    float amount;
    std::uint32_t min_width;
  } cases[] = {{1, 1, {300, 720, 1800}, 1.5f, 3},    {64, 5, {300, 300, 300}, 1.0f, 3},
               {63, 9, {300, 300, 600}, 1.0f, 1},    {65, 9, {300, 300, 600}, 2.0f, 1},
               {128, 2, {300, 300, 300}, 70.0f, 3},  {70, 12, {72, 300, 360}, 36.0f, 3},
               {200, 30, {600, 300, 150}, 1.5f, 3},  {20, 20, {300, 300, 600}, 1.5f, 0xFFFFFFFF},
               {90, 20, {300, 720, 1800}, 2.5f, 40}, {150, 40, {720, 300, 300}, 0.0f, 3}};
  for (const auto& c : cases) {
    const Source art = make_art(c.width, c.rows, c.width);
    DeviceChokeInput input = art.input();
    input.light_mask = nullptr;
    DeviceChokeParams params = params_of(c.mode, c.amount, c.min_width, 2);
    for (const bool adaptive : {false, true}) {
      params.adaptive = adaptive;
      EXPECT_TRUE(PlainChoke(prepare_device_choke(input, params)) == PlainChoke(input, params))
          << c.width << " x " << c.rows << (adaptive ? " adaptive" : "");
    }
  }
}

TEST(DeviceChoke, HasNothingToGrowWithoutRowsOutlineOrCoverage) {
  Source art(9, 6);
  DeviceChokeInput input = art.input();
  const DeviceChokeParams usual = params_of({300, 720, 300}, 2.0f, 3, 2);
  for (const std::uint8_t coverage : {std::uint8_t{0}, std::uint8_t{3}}) {
    std::ranges::fill(art.coverage, coverage);
    EXPECT_TRUE(PlainChoke(prepare_device_choke(input, usual)) == PlainChoke(input, usual));
  }
  input.total_src_rows = 40;
  input.strip_rows = input.strip_src_y = 1;  // no device row belongs to this one of ten
  const ChokeContext between = prepare_device_choke(input, params_of({3000, 720, 300}, 2.0f, 3, 2));
  EXPECT_TRUE(between.width > 0 && between.height == 0 && between.colour_core.empty());
  input.coverage = nullptr;
  EXPECT_EQ(prepare_device_choke(input, usual).width, 0u);
}

}  // namespace
}  // namespace nvo
