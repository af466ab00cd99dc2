#include "plan/sheet_geometry.h"

#include <cmath>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "plan/choke_plan.h"
#include "support/failure.h"

namespace nvo {
namespace {

using test::failure_of;

LayoutItem item_at(float x, float y, float w, float h) {
  return {"", "", "", x, y, w, h};
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

// Rounded in single precision: strips go up the device rows and end with the last one.
TEST(DeviceRow, StripsMeet) {
  for (const auto& [src_dpi, y_dpi] : {std::pair{300u, 1800u}, {600u, 900u}, {300u, 720u}, {600u, 2400u}})
    for (const std::uint32_t src_h : {1u, 5u, 1023u, 1024u, 1025u, 5000u, 18004u, 36007u}) {
      SCOPED_TRACE(testing::Message() << src_dpi << "->" << y_dpi << " " << src_h);
      EXPECT_EQ(device_row(0, src_h, src_dpi, y_dpi), 0u);
      EXPECT_EQ(device_row(src_h, src_h, src_dpi, y_dpi), device_pixels(src_h, src_dpi, y_dpi, "height"));
    }
}

TEST(Halo, ResamplingAndChokeTerms) {
  EXPECT_EQ(resampling_halo_rows(600, 900, false), 3u);
  EXPECT_EQ(resampling_halo_rows(600, 900, true), 1u);
  EXPECT_EQ(resampling_halo_rows(300, 1800, false), 0u);
  ChokePlan choke = plan_choke({});
  choke.white_choke_adaptive_min_width_dots = 0;
  EXPECT_EQ(choke.halo_rows(1800), 4u) << "15 device rows are 2.5 source rows";
  choke.white_choke_enabled = false;
  EXPECT_EQ(choke.halo_rows(1800), 0u);
}

TEST(Choke, IsSettledOnceAndWithinItsLimits) {
  RipJobOptions options;
  options.white_choke_adaptive_min_width_dots = 99;
  options.white_choke_adaptive_lightness_threshold = -3;
  options.adaptive_white_choke_min_width_dots = -5;
  options.adaptive_white_choke_protect_light = false;
  options.adaptive_white_choke_lightness_threshold = 200;
  const auto settled = [&](WhiteChokeSetting algorithm, bool asked_beside) {
    options.white_choke_algorithm = algorithm;
    options.adaptive_white_choke = asked_beside;
    const ChokePlan plan = plan_choke(options);
    return std::tuple(plan.is_adaptive(), plan.white_choke_adaptive_min_width_dots, plan.protects_light(),
                      plan.white_choke_adaptive_lightness_threshold);
  };
  const auto of_job = std::tuple(true, 16u, true, 0.0f);
  EXPECT_EQ(settled(WhiteChokeSetting::adaptive, false), of_job);
  EXPECT_EQ(settled(WhiteChokeSetting::adaptive, true), of_job);
  EXPECT_EQ(settled(WhiteChokeSetting::production, true), std::tuple(true, 1u, false, 100.0f));
  EXPECT_EQ(settled(WhiteChokeSetting::production, false), std::tuple(false, 16u, false, 0.0f));
}

TEST(Geometry, RefusesWhatDoesNotFit) {
  const SheetLayout good{{item_at(0, 0, 1, 1)}, 1};
  ChokePlan far = plan_choke({});
  far.white_choke_amount_px_at_300dpi = 1e30f;
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"sheet width source pixels exceed uint32 limit", [] { source_pixels(1e8f, 300, "sheet width"); }},
      {"height device pixels exceed uint32 limit", [] { device_pixels(4294967295u, 300, 720, "height"); }},
      {"invalid source/device Y mapping", [] { device_row(1, 0, 300, 1800); }},
      {"device height exceeds uint32 limit", [] { device_row(1, 4294967295u, 300, 1800); }},
      {"strip count exceeds progress counter limit", [] { strip_count(4294967295u, 2); }},
      {"adaptive choke halo exceeds uint32 limit", [&] { far.halo_rows(1800); }},
      {"invalid sheet height dimension",
       [] {
         sheet_size({{}, -1}, {}, 0, 0);
       }},
      {"invalid configured sheet width dimension", [&] { sheet_size(good, {}, 0, NAN); }},
      {"invalid placed sheet width dimension",
       [&] {
         sheet_size(good, {INFINITY, 1}, 0, 0);
       }},
      {"invalid item x coordinate",
       [] {
         sheet_size({{item_at(NAN, 0, 1, 1)}, 1}, {}, 0, 0);
       }},
      {"invalid item height dimension", [] {
         sheet_size({{item_at(0, 0, 1, INFINITY)}, 1}, {}, 0, 0);
       }}};
  for (const auto& [message, call] : cases) EXPECT_EQ(failure_of(call), std::string("StreamRip: ") + message);
}

TEST(Canvas, PadGrowsEverySide) {
  RipJobOptions options;
  SheetLayout layout{{item_at(0, 0, 10, 10)}, 10};
  const PlacedSize placed = place_items(layout, options);
  const float pad = plan_choke(options).canvas_pad_in();
  pad_canvas(layout, pad);
  const SheetSize size = sheet_size(layout, placed, pad, 0.0f);
  // In f32 the padded 10 inches gain a pixel; that is the rule.
  EXPECT_EQ(source_pixels(size.width_in, 300, "sheet width"), 3005u);
  EXPECT_EQ(source_pixels(size.height_in, 300, "sheet height"), 3005u);
  EXPECT_FLOAT_EQ(sheet_size(layout, placed, 0.5f, 23).width_in, 24);

  for (const auto& [amount, pixels] : {std::pair(0.0f, 0.0f), {0.01f, 1.0f}, {2.0f, 2.0f}}) {
    options.white_choke_amount_px_at_300dpi = amount;
    EXPECT_FLOAT_EQ(plan_choke(options).canvas_pad_in() * 300.0f, pixels) << amount;
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

}  // namespace
}  // namespace nvo
