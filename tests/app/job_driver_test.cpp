#include "app/job_driver.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

TEST(JobDriver, SourceResolutionChoosesTheGrid) {
  const test::LogCapture quiet;
  const test::TempDir dir;
  const auto blank = [](std::uint32_t, std::uint32_t, std::uint8_t* ink) {
    std::fill_n(ink, 5, std::uint8_t{0});
  };
  const auto grid_for = [&](float dpi_x, float dpi_y) {
    test::TiffFile tiff = test::cmykw_tiff(4, 4, blank);
    tiff.x_resolution = dpi_x, tiff.y_resolution = dpi_y;
    test::write_tiff(dir.file("a.tif"), tiff);
    return source_layout_dpi({dir.file("a.tif")});
  };
  EXPECT_EQ(grid_for(350, 350), 300u);
  EXPECT_EQ(grid_for(351, 351), 600u);
  EXPECT_EQ(grid_for(72, 1200), 600u) << "the finer axis counts";
  EXPECT_EQ(grid_for(0, 0), 300u) << "no resolution in the file";
  EXPECT_EQ(source_layout_dpi({}), 300u);
}

TEST(JobDriver, RunsWithoutSettingsAndTellsItsCallbacks) {
  const test::TempDir dir;
  test::write_tiff(dir.file("a.tif"),
                   test::cmykw_tiff(30, 30, [](std::uint32_t, std::uint32_t, std::uint8_t* ink) {
                     std::fill_n(ink, 5, std::uint8_t{90});
                   }));
  std::vector<std::string> lines, messages;
  JobCallbacks callbacks;
  callbacks.log = [&](LogLevel, const std::string& line) { lines.push_back(line); };
  callbacks.progress = [&](const RipProgress& progress) { messages.push_back(progress.message); };
  const std::string out = dir.file("a.prt");
  EXPECT_EQ(run_job(dir.file("a.tif"), out, {}, {}, 0, 0, callbacks, nullptr, 1.0f), out);
  EXPECT_EQ(messages.back(), "Done");
  const auto has = [&](const std::string& text) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const auto& l) { return l.find(text) != std::string::npos; });
  };
  EXPECT_TRUE(has("StreamRip: 304x34 px @ 300 dpi")) << "the sheet takes the width that is asked for";
  EXPECT_TRUE(has("StreamRip: complete."));
}

}  // namespace
}  // namespace nvo
