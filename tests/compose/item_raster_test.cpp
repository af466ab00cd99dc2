#include "compose/item_raster.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "compose/ink_rows.h"
#include "compose/plain_item.h"
#include "compose/sampling.h"
#include "image/image_loader.h"

namespace nvo {
namespace {

/// Channel layouts as readers deliver them, the last ones odd on purpose: '.' has no role, S is a spot
/// colour.
const std::string kLayouts[] = {"CMYK", "CMYKW", "CMYKWA", "CMYKA",  "...", "...A",
                                "...W", "...AW", "KWCSY",  "WAMCKY", ".A",  "...."};

ChannelRole role_of(char letter) {
  const std::string letters = "CMYKWSA";  // in the order of the roles
  const std::size_t role = letters.find(letter);
  return role == std::string::npos ? ChannelRole::none : static_cast<ChannelRole>(role);
}

class Lottery {
 public:
  explicit Lottery(std::uint32_t seed) : random_(seed + 1) {}
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
  std::uint8_t byte() { return static_cast<std::uint8_t>(random_() >> 7); }
  bool flip() { return below(2) == 0; }

  /// A byte of a transparency: mostly clear or opaque, in runs, and sometimes graded.
  std::uint8_t coverage(bool graded) {
    if (run_ == 0) run_ = 1 + below(12), value_ = graded && below(4) == 0 ? byte() : flip() ? 255 : 0;
    --run_;
    return value_;
  }

 private:
  std::mt19937 random_;
  std::uint32_t run_ = 0;
  std::uint8_t value_ = 0;
};

LoadedImage draw_image(Lottery& lottery, const std::string& layout) {
  LoadedImage image;
  image.width = 1 + lottery.below(40);
  image.height = 1 + lottery.below(40);
  image.channel_count = static_cast<std::uint16_t>(layout.size());
  for (const char c : layout)
    image.channels.push_back({role_of(c), "", static_cast<std::uint8_t>(image.channels.size())});
  image.is_cmyk = image.role_index(ChannelRole::cyan) >= 0;
  image.is_rgb = !image.is_cmyk;
  image.has_alpha = image.role_index(ChannelRole::alpha) >= 0;
  const bool graded = lottery.flip();
  for (std::size_t i = 0; i < std::size_t{image.width} * image.height; ++i)
    for (const char c : layout)
      image.pixels.push_back(c == 'W' || c == 'A' ? lottery.coverage(graded) : lottery.byte());
  image.white_coverage = build_white_coverage(image);
  return image;
}

std::uint32_t draw_size(Lottery& lottery, std::uint32_t source) {
  const std::uint32_t choices[] = {
      source, source, source * 2, source * 5 / 4 + 1, (source + 2) / 3, 1 + lottery.below(60)};
  return choices[lottery.below(6)];
}

StripBuffer draw_strip(Lottery& lottery) {
  StripBuffer strip;
  strip.width = 50;
  strip.height = 24;
  strip.y = 10;
  for (auto& plane : strip.planes) {
    plane.resize(strip.pixels());
    std::ranges::generate(plane, [&] { return lottery.byte(); });
  }
  strip.explicit_white = strip.planes[0];
  return strip;
}

/// What one way of composing gives.
struct Composed {
  StripBuffer strip;
  std::uint64_t pixels = 0;
};

struct Scene {
  LoadedImage image;
  bool rotated = false;
  Resampling config;
  ItemPlacement place;
  StripBuffer background;
  IndexRange rows;
  ItemGrid grid;
  ItemTraits traits;

  IndexRange rows_held() const { return source_rows_needed(grid, traits.box, rows); }

  Composed plain(bool banded) const {
    Composed result{background};
    result.pixels =
        test::PlainItem(image, rotated, config, place, banded).compose(rows, rows_held(), result.strip);
    return result;
  }

  Composed from_view(const SourceView& view) const {
    Composed result{background};
    const IndexRange columns = columns_on_strip(place, result.strip);
    const ColumnMap map(columns.begin, columns.end, place.width, grid.source_width, traits.box);
    RowRasterizer rasterizer(view, traits, grid, map, {});
    rasterizer.raster_rows(rows, strip_target(result.strip, place, columns, rows, traits.has_white));
    result.pixels = rasterizer.pixels_written();
    return result;
  }
  Composed direct() const { return from_view(view_image(image, rotated, traits)); }

  Composed banded() const {
    const auto row_bytes = static_cast<std::ptrdiff_t>(image.width * image.channel_count);
    const auto pixels = image.pixels.begin();
    return from_view(view_rows(image,
                               {pixels + rows_held().begin * row_bytes, pixels + rows_held().end * row_bytes},
                               rows_held(), traits));
  }

  Composed prepared() const {
    Composed result{background};
    const ColumnMap map(0, place.width, place.width, grid.source_width, traits.box);
    PreparedItemRaster raster(place.width, place.height, traits.has_white);
    RowRasterizer(view_image(image, rotated, traits), traits, grid, map, {})
        .raster_rows({0, place.height}, raster.target());
    EXPECT_TRUE(blit_prepared_raster(raster, place, result.strip, rows, result.pixels));
    return result;
  }
};

Scene draw_scene(std::uint32_t seed) {
  Lottery lottery(seed);
  Scene scene;
  scene.image = draw_image(lottery, kLayouts[seed % std::size(kLayouts)]);
  scene.rotated = lottery.below(3) == 0;
  const auto mode = [&] { return lottery.flip() ? ResamplingMode::hard : ResamplingMode::smooth; };
  scene.config.color_resampling_mode = mode();
  scene.config.white_resampling_mode = mode();
  scene.config.color_resampling_linear_light = lottery.flip();
  const ItemGrid natural = make_item_grid(scene.image, scene.rotated, {});
  const bool natural_size = lottery.below(3) == 0;
  scene.place.width = natural_size ? natural.source_width : draw_size(lottery, natural.source_width);
  scene.place.height = natural_size ? natural.source_height : draw_size(lottery, natural.source_height);
  scene.place.x = std::int64_t{lottery.below(40)} - 15;
  scene.place.y = std::int64_t{lottery.below(30)} - 5;
  scene.background = draw_strip(lottery);
  scene.rows = rows_on_strip(scene.place, scene.background);
  scene.grid = make_item_grid(scene.image, scene.rotated, scene.place);
  const auto off_or_on = [](std::uint8_t v) { return v < 5 || v > 250; };
  scene.traits = make_item_traits(scene.image, scene.grid, scene.config,
                                  std::ranges::all_of(scene.image.white_coverage, off_or_on));
  return scene;
}

void expect_same(const Composed& fast, const Composed& plain) {
  EXPECT_EQ(fast.pixels, plain.pixels);
  for (std::size_t i = 0; i < 5; ++i) ASSERT_EQ(fast.strip.planes[i], plain.strip.planes[i]) << "ink " << i;
  ASSERT_EQ(fast.strip.explicit_white, plain.strip.explicit_white);
}

TEST(ItemRaster, AllThreeWaysEqualThePixelByPixelDefinition) {
  int composed = 0;
  for (std::uint32_t seed = 0; seed < 6000 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    const Scene scene = draw_scene(seed);
    if (scene.rows.empty() || columns_on_strip(scene.place, scene.background).empty()) continue;
    ++composed;
    const Composed plain = scene.plain(false);
    expect_same(scene.direct(), plain);
    expect_same(scene.prepared(), plain);
    if (!scene.rotated) expect_same(scene.banded(), scene.plain(true));
  }
  EXPECT_GT(composed, 3000);
}

TEST(ItemRaster, PlacementRounds) {
  const auto place = [](float x, float y, float w, float h) {
    const ItemPlacement at = place_item({"", "", "", x, y, w, h}, 300);
    return std::tuple(at.x, at.y, at.width, at.height);
  };
  // Half a pixel rounds away from zero (0.005f lies a little above 0.005), exact inches gain no pixel.
  EXPECT_EQ(place(0.005f, -0.005f, 0.1f, 0.0101f), std::tuple(1, -1, 30u, 4u));
  constexpr std::int64_t kFarAway = 1'000'000'000'000;
  const auto [x, y, width, height] = place(1e30f, -1e30f, 0.0f, 1e30f);
  EXPECT_TRUE(x > kFarAway && y < -kFarAway && width == 1 && height == 4294967295u);
}

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
  // Where the table has its cells and, found anew by halving, where the byte changes.
  std::vector<float> places;
  for (int cell = 0; cell <= 8192; ++cell) places.push_back(static_cast<float>(cell) / 8192.0f);
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(srgb_from_linear(curve.decode_table()[byte]), byte);
    float below = 0.0f, reached = 1.0f;
    while (std::nextafter(below, 1.0f) < reached) {
      const float middle = below + (reached - below) / 2;
      (srgb_from_linear(middle) >= byte ? reached : below) = middle;
    }
    places.push_back(reached);
  }
  for (float light : places) {
    for (int i = 0; i < 200; ++i) light = std::nextafter(light, 0.0f);
    for (int i = 0; i < 600 && light <= 1.0f; ++i, light = std::nextafter(light, 2.0f))
      ASSERT_EQ(curve.encode(light), srgb_from_linear(light)) << std::hexfloat << light;
  }
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
