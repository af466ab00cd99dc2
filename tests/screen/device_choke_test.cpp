#include "screen/device_choke.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "screen/choke_offsets.h"
#include "screen/plain_device_choke.h"

namespace nvo {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ChokeOffsets, AreTheOctileDiscFromNearToFar) {
  // 720 x 1800: steps of 5 and 2 in units of 1/3600 inch, sqrt(29) = 5.385 diagonally.
  const auto offsets = choke_offsets(720, 1800, 6.0f / 3600.0f);
  const auto displacement = [](const ChokeOffset& o) { return std::pair(o.dx, o.dy); };
  std::vector<std::pair<int, int>> listed;
  std::ranges::transform(offsets, std::back_inserter(listed), displacement);
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
  EXPECT_TRUE(std::ranges::is_sorted(oblong, {},
                                     [](const ChokeOffset& o) { return std::tuple(o.group, o.dy, o.dx); }));
}

TEST(ChokeOffsets, ReachesAsFarAsItMayAndNoFarther) {
  for (const auto& [x_dpi, y_dpi] : {std::pair{360u, 3600u}, {720u, 1800u}, {720u, 900u}, {720u, 360u}}) {
    for (const float amount : {0.01f, 1.5f, 2.5f}) {
      const auto offsets = choke_offsets(x_dpi, y_dpi, amount / 300.0f);
      EXPECT_EQ(std::ranges::max(offsets, {}, &ChokeOffset::dx).dx,
                static_cast<int>(amount * static_cast<float>(x_dpi) / 300.0f + 0.001f));
      EXPECT_EQ(std::ranges::min(offsets, {}, &ChokeOffset::dy).dy,
                -static_cast<int>(amount * static_cast<float>(y_dpi) / 300.0f + 0.001f));
    }
  }
}

struct Source {
  std::uint32_t width, rows;
  Bytes coverage, white, exempt, light;
  Source(std::uint32_t w, std::uint32_t h) : width(w), rows(h) {
    for (Bytes* plane : {&coverage, &white, &exempt, &light}) plane->assign(std::size_t{w} * h, 0);
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

struct Mode {
  std::uint32_t src_dpi, x_dpi, y_dpi;
};

constexpr Mode kModes[] = {{300, 720, 1800}, {300, 360, 3600}, {300, 720, 900}, {300, 360, 540},
                           {300, 720, 720},  {300, 360, 1200}, {300, 720, 540}, {600, 720, 1800},
                           {600, 720, 900},  {600, 360, 360}};

void expect_same(const ChokeContext& fast, const PlainChoke& plain, const std::string& what) {
  const PlainChoke got = to_plain(fast);
  ASSERT_EQ(
      std::tuple(got.width, got.height, got.adaptive, got.min_width_dots, got.protect_light, got.radius_in),
      std::tuple(plain.width, plain.height, plain.adaptive, plain.min_width_dots, plain.protect_light,
                 plain.radius_in))
      << what;
  EXPECT_TRUE(got.colour_core == plain.colour_core) << what;
  EXPECT_TRUE(got.exempt == plain.exempt) << what;
  EXPECT_TRUE(got.support == plain.support) << what;
  EXPECT_TRUE(got.light == plain.light) << what;
  EXPECT_TRUE(got.keep == plain.keep) << what;
  EXPECT_TRUE(got.grown == plain.grown) << what;
  EXPECT_TRUE(got.source_index == plain.source_index) << what;
}

TEST(DeviceChoke, EqualsTheReference) {
  const float amounts[] = {0.1f, 1.5f, 2.5f, 0.7f, 1.0f, 2.0f};
  const std::uint32_t min_widths[] = {3, 0, 16, 2, 7};
  const std::uint32_t thread_counts[] = {1, 2, 3, 5};
  std::uint32_t round = 0;
  ChokeContext context;
  for (const Mode& mode : kModes) {
    for (std::uint32_t variant = 0; variant < 48; ++variant, ++round) {
      const std::uint32_t total = 44, rows = variant % 3 == 0 ? total : 23;
      const Source art = make_art(29 + round * 7 % 40, rows, round);
      DeviceChokeInput input;
      input.coverage = art.coverage.data();
      input.exempt_mask = variant & 1 ? art.exempt.data() : nullptr;
      input.support_plane = variant % 4 != 3 ? art.white.data() : nullptr;
      input.light_mask = variant & 2 ? art.light.data() : nullptr;
      input.src_w = art.width;
      input.strip_rows = rows;
      input.strip_src_y = variant % 3 * ((total - rows) / 2);  // top, middle or bottom of the plane
      input.total_src_rows = total;
      DeviceChokeParams params;
      params.src_dpi = mode.src_dpi;
      params.x_dpi = mode.x_dpi;
      params.y_dpi = mode.y_dpi;
      params.amount_px_at_300dpi = amounts[round % std::size(amounts)];
      params.adaptive = variant % 8 < 6;
      params.min_width_dots = min_widths[round % std::size(min_widths)];
      params.protect_light = variant % 5 != 0;
      params.threads = thread_counts[round % std::size(thread_counts)];
      context = prepare_device_choke(input, params, std::move(context));  // in the last one's memory
      expect_same(context, plain_device_choke(input, params), "round " + std::to_string(round));
    }
  }
}

TEST(DeviceChoke, HoldsAtOddSizesAndSettings) {
  struct Case {
    std::uint32_t width, rows;
    Mode mode;
    float amount;
    std::uint32_t min_width, seed;
  };
  // Widths about the word size, a reach beyond the plane and beyond a word, runs longer than a word, a
  // minimum width beyond any run, more than one source pixel a dot.
  const Case cases[] = {
      {1, 1, {300, 720, 1800}, 1.5f, 3, 1},    {64, 5, {300, 300, 300}, 1.0f, 3, 2},
      {63, 9, {300, 300, 600}, 1.0f, 1, 3},    {65, 9, {300, 300, 600}, 2.0f, 1, 4},
      {128, 2, {300, 300, 300}, 70.0f, 3, 5},  {70, 12, {72, 300, 360}, 36.0f, 3, 6},
      {200, 30, {600, 300, 150}, 1.5f, 3, 7},  {20, 20, {300, 300, 600}, 1.5f, 0xFFFFFFFF, 8},
      {90, 20, {300, 720, 1800}, 2.5f, 40, 9}, {150, 40, {720, 300, 300}, 0.0f, 3, 10}};
  for (const Case& c : cases) {
    const Source art = make_art(c.width, c.rows, c.seed);
    DeviceChokeInput input;
    input.coverage = art.coverage.data();
    input.exempt_mask = art.exempt.data();
    input.support_plane = art.white.data();
    input.src_w = c.width;
    input.strip_rows = input.total_src_rows = c.rows;
    DeviceChokeParams params;
    params.src_dpi = c.mode.src_dpi;
    params.x_dpi = c.mode.x_dpi;
    params.y_dpi = c.mode.y_dpi;
    params.amount_px_at_300dpi = c.amount;
    params.min_width_dots = c.min_width;
    params.threads = 2;
    for (const bool adaptive : {false, true}) {
      params.adaptive = adaptive;
      expect_same(prepare_device_choke(input, params), plain_device_choke(input, params),
                  "seed " + std::to_string(c.seed));
    }
  }
}

TEST(DeviceChoke, ColourRingDoesNotDependOnTheStrips) {
  constexpr std::uint32_t kTotal = 120, kStrip = 40, kHalo = 6;
  const Source art = make_art(50, kTotal, 77);
  for (const Mode& mode : kModes) {
    DeviceChokeParams params;
    params.src_dpi = mode.src_dpi;
    params.x_dpi = mode.x_dpi;
    params.y_dpi = mode.y_dpi;
    params.amount_px_at_300dpi = 1.5f;
    DeviceChokeInput input;
    input.coverage = art.coverage.data();
    input.src_w = art.width;
    input.strip_rows = input.total_src_rows = kTotal;
    const PlainChoke whole = to_plain(prepare_device_choke(input, params));
    const DeviceScale scale(mode.src_dpi, mode.x_dpi, mode.y_dpi);
    for (std::uint32_t top = 0; top < kTotal; top += kStrip) {
      input.strip_src_y = top == 0 ? 0 : top - kHalo;
      input.strip_rows = std::min(top + kStrip + kHalo, kTotal) - input.strip_src_y;
      input.coverage = art.coverage.data() + std::size_t{input.strip_src_y} * art.width;
      const PlainChoke strip = to_plain(prepare_device_choke(input, params));
      const std::uint32_t first =
          device_rows_of_strip(input.strip_src_y, input.strip_rows, scale.y, whole.height).first;
      const DeviceRows own = device_rows_of_strip(top, kStrip, scale.y, whole.height);
      for (std::uint32_t y = own.first; y < own.end; ++y)
        for (std::uint32_t x = 0; x < whole.width; ++x) {
          const std::uint32_t source = strip.source_index[strip.index(x, y - first)];
          ASSERT_EQ(whole.source_index[whole.index(x, y)],
                    source == kNoSource ? kNoSource : source + first * whole.width)
              << x << ", " << y << " at " << mode.x_dpi << " x " << mode.y_dpi;
        }
    }
  }
}

/// A source of one device dot a pixel, drawn with '#' colour on white, 'c' colour alone, 'w' white alone, 'x'
/// explicit white, 'X' explicit white under colour, 'l' light white and colour, '2' coverage of 2.
Source draw(const std::vector<std::string>& picture) {
  Source source(static_cast<std::uint32_t>(picture[0].size()), static_cast<std::uint32_t>(picture.size()));
  for (std::size_t i = 0; i < source.coverage.size(); ++i) {
    const char c = picture[i / source.width][i % source.width];
    source.coverage[i] = c == '2' ? 2 : std::string("#cXl").find(c) != std::string::npos ? 3 : 0;
    source.white[i] = std::string("#wxXl2").find(c) != std::string::npos ? 1 : 0;
    source.exempt[i] = c == 'x' || c == 'X' ? 1 : 0;
    source.light[i] = c == 'l' ? 1 : 0;
  }
  return source;
}

struct Settings {
  float amount = 1.0f;
  bool adaptive = true;
  std::uint32_t min_width = 3;
};

ChokeContext choke(const Source& source, const Settings& settings) {
  DeviceChokeParams params;
  params.src_dpi = params.x_dpi = params.y_dpi = 300;
  params.amount_px_at_300dpi = settings.amount;
  params.adaptive = settings.adaptive;
  params.min_width_dots = settings.min_width;
  const DeviceChokeInput input{source.coverage.data(),
                               source.exempt.data(),
                               source.white.data(),
                               source.light.data(),
                               source.width,
                               source.rows,
                               0,
                               source.rows};
  return prepare_device_choke(input, params);
}

/// Rows of a plane, '#' where set.
std::vector<std::string> show(const BitPlane& plane) {
  std::vector<std::string> rows(plane.height, std::string(plane.width, '.'));
  for (std::size_t y = 0; y < plane.height; ++y)
    for (std::size_t x = 0; x < plane.width; ++x)
      if (plane.test(x, y)) rows[y][x] = '#';
  return rows;
}

using Picture = std::vector<std::string>;

TEST(DeviceChoke, DrawsWideWhiteInAndKeepsThinWhite) {
  const Source block = draw({".........",  //
                             ".######..",  //
                             ".######..",  //
                             ".######..",  //
                             ".######..",  //
                             ".######..",  //
                             "........."});
  const ChokeContext drawn_in = choke(block, {});
  EXPECT_EQ(show(drawn_in.keep), (Picture{".........",  //
                                          ".........",  //
                                          "..####...",  //
                                          "..####...",  //
                                          "..####...",  //
                                          ".........",  //
                                          "........."}));
  EXPECT_EQ(show(drawn_in.grown), show(drawn_in.colour_core))
      << "colour need not grow where white was drawn in";

  const Source line = draw({"........",  //
                            "..##....",  //
                            "..##....",  //
                            "..##....",  //
                            "..##....",  //
                            "..##....",  //
                            "........"});
  const ChokeContext thin = choke(line, {});
  EXPECT_EQ(show(thin.keep), show(thin.support));
  EXPECT_EQ(show(thin.grown), (Picture{"..##....",  //
                                       ".####...",  //
                                       ".####...",  //
                                       ".####...",  //
                                       ".####...",  //
                                       ".####...",  //
                                       "..##...."}));
  EXPECT_THAT(show(choke(line, {.min_width = 1}).keep), testing::Each("........"))
      << "two dots are too wide for 1";
  EXPECT_EQ(show(choke(line, {.min_width = 0}).keep), show(choke(line, {.min_width = 1}).keep));
}

TEST(DeviceChoke, ProtectsLightAndExplicitWhite) {
  const ChokeContext context = choke(draw({".............",  //
                                           ".####llll###.",  //
                                           ".####llll###.",  //
                                           ".XX##llll###.",  //
                                           ".XX######x##.",  //
                                           ".########x##.",  //
                                           "............."}),
                                     {});
  EXPECT_EQ(show(context.keep), (Picture{".............",  //
                                         ".....####....",  //
                                         "..#########..",  //
                                         ".##########..",  //
                                         ".##########..",  //
                                         ".........#...",  //
                                         "............."}));
}

TEST(DeviceChoke, GrowsColourByTheNearestOutlineDot) {
  const ChokeContext context = choke(draw({"......",  //
                                           ".c..c.",  //
                                           "..x...",  //
                                           "......",  //
                                           "X2...."}),
                                     {.amount = 2.0f, .adaptive = false});
  // The exempt dot stays out though the diagonal passes it; the explicit white below neither grows nor is a
  // source.
  EXPECT_EQ(show(context.colour_core), (Picture{"......", ".#..#.", "......", "......", "#....."}));
  EXPECT_EQ(show(context.grown), (Picture{"######",  //
                                          "######",  //
                                          "##.###",  //
                                          ".#..#.",  //
                                          "#....."}));
  const auto row = context.ring_of_row(1);
  std::vector<std::uint32_t> sources;
  for (const RingDot& dot : row) sources.push_back(dot.source_x);
  EXPECT_THAT(sources, testing::ElementsAre(1, 1, 4, 4));
  // Equally far from four sources: the upper row wins, then the left column.
  const ChokeContext tie = choke(draw({"c.c",  //
                                       "...",  //
                                       "c.c"}),
                                 {.amount = 1.5f, .adaptive = false});
  const RingDot centre = tie.ring_of_row(1)[1];
  EXPECT_EQ(std::tuple(centre.x, centre.source_x, centre.source_y), std::tuple(1u, 0u, 0u));
  const RingDot left = tie.ring_of_row(1)[0];
  EXPECT_EQ(std::tuple(left.x, left.source_x, left.source_y), std::tuple(0u, 0u, 0u));
}

TEST(DeviceChoke, WithoutRadiusColourOrPlanes) {
  const Source mixed = draw({"##w.", "c2x."});
  const ChokeContext still = choke(mixed, {.amount = 0.0f});
  EXPECT_EQ(show(still.keep), show(still.support));
  EXPECT_EQ(show(still.grown), (Picture{"##..", "#..."}));

  const ChokeContext bare = choke(draw({"www2", "w22x"}), {.adaptive = false});
  EXPECT_THAT(show(bare.grown), testing::Each("...."));
  EXPECT_TRUE(bare.ring.empty() && bare.ring_rows.empty());

  const ChokeContext full = choke(draw({"cc", "cc"}), {.adaptive = false});
  EXPECT_TRUE(full.ring.empty());

  DeviceChokeInput input{mixed.coverage.data(), nullptr,    nullptr, nullptr,
                         mixed.width,           mixed.rows, 0,       mixed.rows};
  DeviceChokeParams params;
  params.amount_px_at_300dpi = 1.0f;
  params.adaptive = true;
  EXPECT_FALSE(prepare_device_choke(input, params).adaptive) << "no white plane, nothing to adapt";
  params.src_dpi = 3000;
  params.y_dpi = 300;
  input.strip_rows = 1;
  input.total_src_rows = 40;
  input.strip_src_y = 1;
  const ChokeContext between = prepare_device_choke(input, params);
  EXPECT_TRUE(between.width > 0 && between.height == 0 && between.colour_core.empty());
  input.coverage = nullptr;
  EXPECT_EQ(prepare_device_choke(input, params).width, 0u);
}

}  // namespace
}  // namespace nvo
