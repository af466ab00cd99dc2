#include "compose/item_raster.h"

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "compose/plain_item.h"
#include "image/image_loader.h"

namespace nvo {
namespace {

using Roles = std::vector<ChannelRole>;
constexpr ChannelRole kNone = ChannelRole::none, kC = ChannelRole::cyan, kM = ChannelRole::magenta,
                      kY = ChannelRole::yellow, kK = ChannelRole::black, kW = ChannelRole::white,
                      kA = ChannelRole::alpha, kSpot = ChannelRole::spot;

/// Channel layouts as readers deliver them; the last ones are odd on purpose.
const std::vector<Roles> kLayouts = {
    {kC, kM, kY, kK},
    {kC, kM, kY, kK, kW},
    {kC, kM, kY, kK, kW, kA},
    {kC, kM, kY, kK, kA},
    {kNone, kNone, kNone},
    {kNone, kNone, kNone, kA},
    {kNone, kNone, kNone, kW},
    {kNone, kNone, kNone, kA, kW},
    {kK, kW, kC, kSpot, kY},
    {kW, kA, kM, kC, kK, kY},
    {kNone, kA},
    {kNone, kNone, kNone, kNone},
};

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

LoadedImage draw_image(Lottery& lottery, const Roles& roles) {
  LoadedImage image;
  image.width = 1 + lottery.below(40);
  image.height = 1 + lottery.below(40);
  image.channel_count = static_cast<std::uint16_t>(roles.size());
  for (std::size_t i = 0; i < roles.size(); ++i) {
    image.channels.push_back({roles[i], "", static_cast<std::uint8_t>(i)});
    image.is_cmyk = image.is_cmyk || roles[i] == kC;
    image.has_alpha = image.has_alpha || roles[i] == kA;
  }
  image.is_rgb = !image.is_cmyk;
  const bool graded = lottery.flip();
  for (std::size_t i = 0; i < std::size_t{image.width} * image.height; ++i)
    for (const ChannelRole role : roles)
      image.pixels.push_back(role == kW || role == kA ? lottery.coverage(graded) : lottery.byte());
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
  strip.channel_count = 5;
  strip.explicit_white.resize(std::size_t{strip.width} * strip.height);
  strip.planes.assign(5, strip.explicit_white);
  for (auto& plane : strip.planes)
    for (auto& byte : plane) byte = lottery.byte();
  for (auto& byte : strip.explicit_white) byte = lottery.flip() ? 255 : 0;
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
  StripCompositorConfig config;
  ItemPlacement place;
  StripBuffer background;
  IndexRange rows;

  ItemGrid grid() const { return make_item_grid(image, rotated, place); }
  ItemTraits traits() const {
    bool binary = true;
    for (const std::uint8_t v : image.white_coverage) binary = binary && (v < 5 || v > 250);
    return make_item_traits(image, grid(), config, binary);
  }

  Composed plain(bool banded) const {
    Composed result{background};
    result.pixels = test::PlainItem(image, rotated, config, place, banded)
                        .compose(rows, source_rows_needed(grid(), traits().box, rows), result.strip);
    return result;
  }

  Composed from_view(const SourceView& view) const {
    Composed result{background};
    const IndexRange columns = columns_on_strip(place, result.strip);
    const ColumnMap map(columns.begin, columns.end, place.width, grid().source_width, traits().box);
    RowRasterizer rasterizer(view, traits(), grid(), map, {});
    rasterizer.raster_rows(rows, strip_target(result.strip, place, columns, rows, traits().has_white));
    result.pixels = rasterizer.pixels_written();
    return result;
  }
  Composed direct() const { return from_view(view_image(image, rotated, traits())); }

  Composed banded() const {
    const IndexRange held = source_rows_needed(grid(), traits().box, rows);
    const std::size_t row_bytes = std::size_t{image.width} * image.channel_count;
    const std::vector<std::uint8_t> band(
        image.pixels.begin() + static_cast<std::ptrdiff_t>(held.begin * row_bytes),
        image.pixels.begin() + static_cast<std::ptrdiff_t>(held.end * row_bytes));
    return from_view(view_rows(image, band, held, traits()));
  }

  Composed prepared() const {
    Composed result{background};
    const ColumnMap map(0, place.width, place.width, grid().source_width, traits().box);
    PreparedItemRaster raster(place.width, place.height, traits().has_white);
    RowRasterizer(view_image(image, rotated, traits()), traits(), grid(), map, {})
        .raster_rows({0, place.height}, raster.target());
    EXPECT_TRUE(blit_prepared_raster(raster, place, result.strip, rows, result.pixels));
    return result;
  }
};

Scene draw_scene(std::uint32_t seed) {
  Lottery lottery(seed);
  Scene scene;
  scene.image = draw_image(lottery, kLayouts[seed % kLayouts.size()]);
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
  return scene;
}

void expect_same(const Composed& fast, const Composed& plain, const std::string& way, std::uint32_t seed) {
  EXPECT_EQ(fast.pixels, plain.pixels) << way << ", scene " << seed;
  for (std::size_t i = 0; i < 5; ++i)
    ASSERT_EQ(fast.strip.planes[i], plain.strip.planes[i]) << way << ", scene " << seed << ", ink " << i;
  ASSERT_EQ(fast.strip.explicit_white, plain.strip.explicit_white) << way << ", scene " << seed;
}

TEST(ItemRaster, AllThreeWaysEqualThePixelByPixelDefinition) {
  int composed = 0;
  for (std::uint32_t seed = 0; seed < 6000; ++seed) {
    const Scene scene = draw_scene(seed);
    if (scene.rows.empty() || columns_on_strip(scene.place, scene.background).empty()) continue;
    ++composed;
    const Composed plain = scene.plain(false);
    ASSERT_NO_FATAL_FAILURE(expect_same(scene.direct(), plain, "direct", seed));
    ASSERT_NO_FATAL_FAILURE(expect_same(scene.prepared(), plain, "prepared", seed));
    if (scene.rotated) continue;
    ASSERT_NO_FATAL_FAILURE(expect_same(scene.banded(), scene.plain(true), "banded", seed));
  }
  EXPECT_GT(composed, 3000);
}

TEST(ItemRaster, RotationTurnsClockwise) {
  Scene scene;
  scene.image.width = 3, scene.image.height = 2, scene.image.channel_count = 4;
  scene.image.is_cmyk = true;
  for (const ChannelRole role : {kC, kM, kY, kK})
    scene.image.channels.push_back({role, "", static_cast<std::uint8_t>(role)});
  for (std::uint8_t i = 1; i <= 6; ++i) scene.image.pixels.insert(scene.image.pixels.end(), {i, 0, 0, 0});
  scene.image.white_coverage = build_white_coverage(scene.image);
  scene.rotated = true;
  scene.place = {0, 0, 2, 3};
  scene.background.width = 2, scene.background.height = 3;
  scene.background.planes.assign(5, std::vector<std::uint8_t>(6));
  scene.background.explicit_white.resize(6);
  scene.rows = {0, 3};
  EXPECT_EQ(scene.direct().strip.planes[0], (std::vector<std::uint8_t>{4, 1, 5, 2, 6, 3}));
}

TEST(ItemRaster, PlacementRounds) {
  const auto place = [](float x, float y, float w, float h) {
    LayoutItem item;
    item.x_in = x, item.y_in = y, item.width_in = w, item.height_in = h;
    return place_item(item, 300);
  };
  const ItemPlacement usual = place(0.005f, -0.005f, 10.0f, 0.0101f);
  EXPECT_EQ(usual.x, 1) << "half a pixel rounds away from zero (0.005f lies a little above 0.005)";
  EXPECT_EQ(usual.y, -1);
  EXPECT_EQ(usual.width, 3000u) << "exact inches gain no pixel";
  EXPECT_EQ(usual.height, 4u);
  const ItemPlacement odd = place(1e30f, -1e30f, 0.0f, 1e30f);
  EXPECT_EQ(odd.width, 1u);
  EXPECT_EQ(odd.height, 4294967295u);
}

TEST(ItemRaster, MalformedRasterIsRefused) {
  PreparedItemRaster raster(4, 4, false);
  StripBuffer strip;
  strip.width = strip.height = 4;
  std::uint64_t written = 0;
  EXPECT_TRUE(blit_prepared_raster(raster, {0, 0, 4, 4}, strip, {0, 4}, written))
      << "planes missing in the strip";
  raster.m.pop_back();
  EXPECT_FALSE(blit_prepared_raster(raster, {0, 0, 4, 4}, strip, {0, 4}, written));
  EXPECT_FALSE(blit_prepared_raster({}, {0, 0, 4, 4}, strip, {0, 4}, written));
}

}  // namespace
}  // namespace nvo
