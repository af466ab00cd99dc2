#include "plan/sheet_geometry.h"

#include <cmath>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "support/failure.h"

namespace nvo {
namespace {

using test::failure_of;

LayoutItem item_at(float x, float y, float w, float h) {
  LayoutItem item;
  item.x_in = x, item.y_in = y, item.width_in = w, item.height_in = h;
  return item;
}

TEST(Resolution, SnapsToReferenceAndWholeNumbers) {
  const std::pair<float, float> cases[] = {{0.0f, 300},     {-5.0f, 300},      {NAN, 300},
                                           {299.7f, 300},   {300.5f, 300},     {299.4f, 299.4f},
                                           {239.995f, 240}, {240.02f, 240.02f}};
  for (const auto& [file, expected] : cases) EXPECT_EQ(normalize_resolution(file, 300), expected) << file;
}

TEST(Pixels, ForgiveNoiseAndRound) {
  EXPECT_EQ(source_pixels(10.0f, 300, "sheet width"), 3000u);
  EXPECT_EQ(source_pixels(3000.0f / 299.4f, 300, "sheet width"), 3007u);
  EXPECT_EQ(source_pixels(0.0f, 300, "sheet width"), 0u);
  EXPECT_EQ(source_pixels(1e-7f, 300, "sheet width"), 0u);
  EXPECT_EQ(device_pixels(1, 300, 1, "width"), 1u);
  EXPECT_EQ(device_pixels(5, 300, 90, "width"), 2u) << "half rounds away from zero";
  EXPECT_EQ(strip_count(5000, 1024), 5u);
  EXPECT_EQ(strip_count(1024, 1024), 1u);
  EXPECT_EQ(strip_count(4294967294u, 2), 2147483647u);
}

// Strips of every plan tile the device grid: no gap, no overlap, and the sum is the device height.
TEST(DeviceRow, StripsMeet) {
  for (const auto& [src_dpi, y_dpi] : {std::pair{300u, 1800u}, {600u, 900u}, {300u, 720u}, {600u, 2400u}}) {
    for (const std::uint32_t src_h : {1u, 5u, 1023u, 1024u, 1025u, 5000u, 18004u, 36007u}) {
      SCOPED_TRACE(testing::Message() << src_dpi << "->" << y_dpi << " " << src_h);
      EXPECT_EQ(device_row(0, src_h, src_dpi, y_dpi), 0u);
      EXPECT_EQ(device_row(src_h, src_h, src_dpi, y_dpi), device_pixels(src_h, src_dpi, y_dpi, "height"));
      for (std::uint32_t row = 64; row <= src_h; row += 64)
        EXPECT_GE(device_row(row, src_h, src_dpi, y_dpi), device_row(row - 64, src_h, src_dpi, y_dpi));
    }
  }
}

TEST(Halo, ResamplingAndChokeTerms) {
  // 1.5 px at 300 dpi is 9 device rows: ceil(9 + 1) + 3 + 4 = 17 of them are 2.83 source rows.
  const std::pair<HaloNeeds, std::uint32_t> cases[] = {
      {{300, 1800, false, false, 1.5f, 3}, 0}, {{600, 900, false, false, 1.5f, 3}, 3},
      {{600, 900, true, false, 1.5f, 3}, 1},   {{300, 1800, false, true, 0.0f, 3}, 0},
      {{300, 1800, false, true, 1.5f, 3}, 4},  {{300, 1800, false, true, 1.5f, -7}, 4},
      {{0, 1800, false, true, 1.5f, 3}, 0}};
  for (const auto& [needs, rows] : cases)
    EXPECT_EQ(halo_rows(needs), rows) << needs.y_dpi << " " << needs.choke_amount_px_at_300dpi;
}

TEST(Geometry, RefusesWhatDoesNotFit) {
  const HaloNeeds far{300, 1800, false, true, 1e30f, 3};
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"sheet width source pixels exceed uint32 limit", [] { source_pixels(1e8f, 300, "sheet width"); }},
      {"height device pixels exceed uint32 limit", [] { device_pixels(4294967295u, 300, 720, "height"); }},
      {"invalid source/device Y mapping", [] { device_row(1, 0, 300, 1800); }},
      {"device height exceeds uint32 limit", [] { device_row(1, 4294967295u, 300, 1800); }},
      {"strip count exceeds progress counter limit", [] { strip_count(4294967295u, 2); }},
      {"adaptive choke halo exceeds uint32 limit", [&] { halo_rows(far); }}};
  for (const auto& [message, call] : cases) EXPECT_EQ(failure_of(call), std::string("StreamRip: ") + message);
}

TEST(Canvas, PadGrowsEverySide) {
  RipJobOptions options;
  SheetLayout layout{{item_at(0, 0, 10, 10)}, 10};
  const PlacedSize placed = place_items(layout, options);
  const float pad = choke_canvas_pad_in(options);
  pad_canvas(layout, pad);
  const SheetSize size = sheet_size(layout, placed, pad, 0.0f);
  // In f32 the padded 10 inches gain a pixel; that is the rule.
  EXPECT_EQ(source_pixels(size.width_in, 300, "sheet width"), 3005u);
  EXPECT_EQ(source_pixels(size.height_in, 300, "sheet height"), 3005u);

  for (const auto& [enabled, amount, dpi, expected_px] : {std::tuple(false, 1.5f, 300u, 0.0f),
                                                          {true, 0.0f, 300, 0},
                                                          {true, 0.01f, 300, 1},
                                                          {true, 1.5f, 300, 2},
                                                          {true, 1.5f, 600, 3}}) {
    options.white_choke_enabled = enabled;
    options.white_choke_amount_px_at_300dpi = amount;
    options.src_dpi = dpi;
    EXPECT_FLOAT_EQ(choke_canvas_pad_in(options) * static_cast<float>(dpi), expected_px) << amount;
  }
}

TEST(Placement, MarginsAndModes) {
  const auto left_edge = [](SheetPlacementMode mode, float sheet_width, float content) {
    RipJobOptions options;
    options.sheet_width_in = sheet_width;
    options.sheet_margin_left_in = 1, options.sheet_margin_right_in = 2;
    options.sheet_margin_top_in = 0.5f, options.sheet_margin_bottom_in = 0.25f;
    options.sheet_placement_mode = mode;
    SheetLayout layout{{item_at(-3, -4, content / 2, 5), item_at(-3 + content / 2, 1, content / 2, 1)}, 6};
    const PlacedSize placed = place_items(layout, options);
    EXPECT_FLOAT_EQ(layout.items[0].y_in, 0.5f);
    EXPECT_FLOAT_EQ(placed.height_in, 6.5f) << "from the top margin to the lowest bottom";
    EXPECT_FLOAT_EQ(layout.height_in, 10.5f);
    EXPECT_FLOAT_EQ(placed.width_in, layout.items[0].x_in + content);
    return layout.items[0].x_in;
  };
  EXPECT_FLOAT_EQ(left_edge(SheetPlacementMode::align_left, 20, 8), 11);
  EXPECT_FLOAT_EQ(left_edge(SheetPlacementMode::align_center, 20, 8), 6.5f);
  EXPECT_FLOAT_EQ(left_edge(SheetPlacementMode::align_right, 20, 8), 2);
  EXPECT_FLOAT_EQ(left_edge(static_cast<SheetPlacementMode>(9), 20, 8), 1);
  EXPECT_FLOAT_EQ(left_edge(SheetPlacementMode::align_right, 10, 8), 1) << "too wide for the sheet";
}

TEST(SheetSize, RefusesWhatIsNoSize) {
  const SheetLayout good{{item_at(0, 0, 1, 1)}, 1};
  const std::tuple<SheetLayout, PlacedSize, float, std::string> cases[] = {
      {{{}, -1}, {}, 0, "sheet height dimension"},
      {good, {}, NAN, "configured sheet width dimension"},
      {good, {INFINITY, 1}, 0, "placed sheet width dimension"},
      {{{item_at(NAN, 0, 1, 1)}, 1}, {}, 0, "item x coordinate"},
      {{{item_at(0, 0, 1, INFINITY)}, 1}, {}, 0, "item height dimension"},
  };
  for (const auto& [layout, placed, configured, what] : cases)
    EXPECT_EQ(failure_of([&, &l = layout, &p = placed, c = configured] { sheet_size(l, p, 0, c); }),
              "StreamRip: invalid " + what);
  EXPECT_FLOAT_EQ(sheet_size(good, {1, 1}, 0.5f, 23).width_in, 24);
}

}  // namespace
}  // namespace nvo
