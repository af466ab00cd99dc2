#include "tools/prt_preview.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include "output/test_drops.h"
#include "support/temp_dir.h"
#include "tools/prt_tool.h"

namespace nvo {
namespace {

using test::run_tool;

constexpr Rgb8 kFilm{0x5A, 0x64, 0x70}, kWhite{255, 255, 255};

struct Picture {
  std::uint32_t width = 0, height = 0;
  std::vector<std::uint8_t> rgb;

  Rgb8 at(std::uint32_t x, std::uint32_t y) const {
    const std::size_t i = (std::size_t{y} * width + x) * 3;
    return {rgb[i], rgb[i + 1], rgb[i + 2]};
  }
};

/// What `nvo_prt preview` makes of the folder's a.prt; nothing where it fails.
Picture preview(const test::TempDir& dir, const std::vector<std::string>& options) {
  std::vector<std::string> arguments = {"preview", dir.file("a.prt"), dir.file("a.png")};
  arguments.insert(arguments.end(), options.begin(), options.end());
  const test::ToolResult result = run_tool(arguments);
  EXPECT_EQ(result.code, 0) << result.err;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, dir.file("a.png").c_str())) return {};
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) return {};
  return {image.width, image.height, std::move(rgb)};
}

/// Part of [a, b) that lies in [c, d).
double overlap(double a, double b, double c, double d) {
  return std::max(0.0, std::min(b, d) - std::max(a, c));
}

/// Mean ink of the dots below one pixel, one dot after the other.
double mean_ink(const DropMap& map, const PreviewPlan& plan, std::uint32_t x, std::uint32_t y) {
  const double dots_x = double(plan.columns) / plan.width, dots_y = double(plan.rows) / plan.height;
  const double left = x * dots_x, right = std::min<double>(left + dots_x, plan.columns);
  const double top = y * dots_y, bottom = std::min<double>(top + dots_y, plan.rows);
  double sum = 0;
  for (auto row = std::uint32_t(top); row < bottom; ++row)
    for (auto column = std::uint32_t(left); column < right; ++column)
      sum += overlap(top, bottom, row, row + 1) * overlap(left, right, column, column + 1) *
             (map.data[std::size_t{plan.top + row} * map.width + plan.left + column] & 3);
  return sum / (3 * dots_x * dots_y);
}

TEST(PrtPreview, EveryPixelIsTheMeanOfTheDotsBelowIt) {
  const std::tuple<std::uint32_t, std::uint32_t, std::vector<std::string>, PreviewPlan> cases[] = {
      {144, 360, {"--dpi", "100"}, {0, 0, 144, 360, 20, 20, 100}},
      {143, 1000, {"--dpi", "77"}, {0, 0, 143, 1000, 15, 43, 77}},
      {36, 36, {"--dpi", "2000"}, {0, 0, 36, 36, 100, 40, 2000}},
      {144, 360, {"--dpi", "333", "--crop", "0.05,0.1,0.1,0.05"}, {36, 180, 72, 90, 33, 17, 333}},
      {144, 360, {"--dpi", "900", "--crop", "0.1875,0.15,9,9"}, {135, 270, 9, 90, 11, 45, 900}},
      {144, 360, {"--dpi", "1"}, {0, 0, 144, 360, 1, 1, 1}},
      {72, 720, {}, {0, 0, 72, 720, 400, 1600, 4000}},  // 0.1 x 0.4 inches
      // Read in two blocks.
      {20000, 180, {"--dpi", "900", "--crop", "5,0,0.5,9"}, {3600, 0, 360, 180, 450, 90, 900}},
  };
  const InkModel model(kFilm);
  for (const auto& [width, height, options, plan] : cases) {
    SCOPED_TRACE(plan.dpi);
    const test::TempDir dir;
    const std::vector<DropMap> maps = test::make_channels(width, height, 5);
    test::write_print_file(dir.file("a.prt"), 0, maps);
    const Picture picture = preview(dir, options);
    ASSERT_EQ(std::pair(picture.width, picture.height), std::pair(plan.width, plan.height));
    for (std::uint32_t y = 0; y < picture.height; ++y)
      for (std::uint32_t x = 0; x < picture.width; ++x) {
        InkAmount coverage{};
        for (std::size_t ink = 0; ink < coverage.size(); ++ink)
          coverage[ink] = static_cast<float>(mean_ink(maps[ink], plan, x, y));
        const Rgb8 expected = model.color(coverage), found = picture.at(x, y);
        ASSERT_LE(std::max({std::abs(expected.r - found.r), std::abs(expected.g - found.g),
                            std::abs(expected.b - found.b)}),
                  1)
            << x << ',' << y;
      }
  }
}

TEST(PrtPreview, ShowsOneInkOnItsOwnAndReadsTheSlotsAsTold) {
  const test::TempDir dir;
  std::vector<DropMap> maps(5, {8, 8, std::vector<std::uint8_t>(64)});
  for (std::size_t i = 0; i < 64; ++i) maps[i % 8 < 4 ? kChannelC : kChannelW].data[i] = 3;
  test::write_print_file(dir.file("a.prt"), 1, maps);  // the sixth slot is empty
  const Rgb8 black_ink{0, 0, 0}, cyan_ink{0x00, 0x9F, 0xE3};
  const std::tuple<std::vector<std::string>, Rgb8, Rgb8> cases[] = {
      {{"--channel", "C"}, black_ink, kWhite},
      {{"--channel", "m"}, kWhite, kWhite},
      {{"--channel", "W"}, kFilm, kWhite},
      {{"--channel", "W", "--film", "#102030"}, {0x10, 0x20, 0x30}, kWhite},
      {{"--film", "white"}, cyan_ink, kWhite},
      {{"--map", "-W--CC", "--film", "#FFFFFF"}, kWhite, cyan_ink},
  };
  for (auto [options, left, right] : cases) {
    options.insert(options.end(), {"--dpi", "720"});
    const Picture picture = preview(dir, options);
    ASSERT_EQ(picture.width, 8u);
    EXPECT_EQ(picture.at(3, 0), left) << options[1];
    EXPECT_EQ(picture.at(4, 0), right) << options[1];
  }
}

}  // namespace
}  // namespace nvo
