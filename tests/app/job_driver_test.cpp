#include "app/job_driver.h"

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

TEST(JobDriver, SourceResolutionChoosesTheGrid) {
  const test::LogCapture quiet;
  const test::TempDir dir;
  const std::tuple<float, float, std::uint32_t> cases[] = {
      {350, 350, 300}, {351, 351, 600}, {72, 1200, 600}, {0, 0, 300},  // the last without a resolution
  };
  for (const auto& [x_dpi, y_dpi, grid] : cases) {
    test::TiffFile tiff = test::cmykw_tiff(4, 4, {});
    tiff.x_resolution = x_dpi, tiff.y_resolution = y_dpi;
    test::write_tiff(dir.file("a.tif"), tiff);
    EXPECT_EQ(source_layout_dpi({dir.file("a.tif")}), grid) << x_dpi << " x " << y_dpi;
  }
  EXPECT_EQ(source_layout_dpi({}), 300u);
}

/// What a print doesn't show: these values are for front ends.
TEST(JobDriver, OptionsCarryWhatFrontEndsPlaceImagesBy) {
  JobSettings job;
  job.repeated_file_gap_in = 1, job.sheet_width_in = 2, job.max_length_in = 3;
  job.sheet_margin_top_in = 4;
  job.sheet_placement_mode = SheetPlacementMode::align_left;
  RipPerformance performance;
  performance.sheet_threads = 5;
  const RipJobOptions options = job_options(job, performance);
  EXPECT_EQ(std::tuple(options.nesting_gap_in, options.sheet_width_setting_in, options.max_length_in,
                       options.sheet_margin_top_in, options.sheet_width_in),
            std::tuple(1, 2, 3, 4, 0));
  EXPECT_EQ(options.sheet_placement_mode, job.sheet_placement_mode);
  EXPECT_EQ(options.performance.sheet_threads, 5u);
}

TEST(JobDriver, RunsWithoutSettingsAndTellsItsCallbacks) {
  const test::TempDir dir;
  test::write_tiff(dir.file("a.tif"), test::cmykw_tiff(30, 30, {}));
  std::string lines, message;
  JobCallbacks callbacks;
  callbacks.log = [&](LogLevel, const std::string& line) { lines += line + "\n"; };
  callbacks.progress = [&](const RipProgress& progress) { message = progress.message; };
  const std::string out = dir.file("a.prt");
  EXPECT_EQ(run_job(dir.file("a.tif"), out, {}, {}, 0, 0, callbacks, nullptr, 1.0f), out);
  EXPECT_EQ(message, "Done");
  EXPECT_THAT(lines, testing::HasSubstr("StreamRip: 304x34 px @ 300 dpi")) << "as wide as asked for";
  EXPECT_THAT(lines, testing::HasSubstr("StreamRip: complete."));
}

}  // namespace
}  // namespace nvo
