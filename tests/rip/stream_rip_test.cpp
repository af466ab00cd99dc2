#include "rip/stream_rip.h"

#include <algorithm>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "rip/rip_job.h"
#include "support/failure.h"

namespace nvo {
namespace {

using test::failure_of;
using test::Job;
using test::picture;
using test::PrintFile;
using test::TiffFile;

TEST(StreamRip, SolidInkGivesItsLevelEverywhereRowsBottomUpSlotsInBoardOrder) {
  Job job;
  job.rip.options.color_resampling_mode = job.rip.options.white_resampling_mode = ResamplingMode::hard;
  const TiffFile tiff = test::cmykw_tiff(20, 10, [](std::uint32_t, std::uint32_t y, std::uint8_t* ink) {
    const std::uint8_t top_half[5] = {85, 170, 255, 0, 0}, bottom_half[5] = {255, 85, 170, 0, 255};
    std::copy_n(y < 5 ? top_half : bottom_half, 5, ink);
  });
  test::write_tiff(job.input, tiff);
  const PrintFile file = job.run();
  ASSERT_TRUE(file.is_whole);
  EXPECT_EQ(file.width, 48u);
  EXPECT_EQ(file.height, 60u);
  const std::vector<std::pair<int, int>> expected = {{0, 0}, {1, 3}, {2, 1}, {3, 2}, {3, 0}, {3, 0}};
  for (std::size_t slot = 0; slot < 6; ++slot) {
    for (std::size_t dot = 0; dot < file.drops[slot].size(); ++dot) {
      const bool top = dot < file.drops[slot].size() / 2;
      ASSERT_EQ(file.drops[slot][dot], top ? expected[slot].first : expected[slot].second)
          << slot << " " << dot;
    }
  }
}

// The same sheet in one strip, in many strips and at once has the same drops, whatever the scale.
TEST(StreamRip, StripPlanDoesNotShow) {
  struct Case {
    std::uint32_t src_dpi, x_dpi, y_dpi;
    ResamplingMode mode;
    bool choke;
  };
  const std::vector<Case> cases = {
      {300, 720, 1800, ResamplingMode::smooth, false}, {300, 720, 720, ResamplingMode::smooth, false},
      {600, 720, 900, ResamplingMode::smooth, false},  {600, 360, 1800, ResamplingMode::hard, false},
      {300, 720, 1800, ResamplingMode::smooth, true},  {300, 360, 540, ResamplingMode::smooth, true},
  };
  for (const Case& c : cases) {
    std::vector<std::string> files;
    for (const std::uint32_t strip_h : {4096u, 100u, 37u}) {
      Job job;
      RipJobOptions& options = job.rip.options;
      options.src_dpi = c.src_dpi;
      options.print_mode = {};
      options.x_dpi = c.x_dpi, options.y_dpi = c.y_dpi;
      options.color_resampling_mode = options.white_resampling_mode = c.mode;
      options.white_choke_enabled = c.choke;
      options.strip_h_px = strip_h;
      TiffFile tiff = picture(90, 301);
      tiff.x_resolution = tiff.y_resolution = static_cast<float>(c.src_dpi);
      test::write_tiff(job.input, tiff);
      job.run();
      files.push_back(test::read_all(job.output));
    }
    EXPECT_EQ(files[0], files[1]) << c.src_dpi << "->" << c.y_dpi;
    EXPECT_EQ(files[0], files[2]) << c.src_dpi << "->" << c.y_dpi;
    EXPECT_TRUE(PrintFile(files[0]).is_whole);
  }
}

TEST(StreamRip, ChannelsSideBySideEqualOneAfterAnother) {
  std::vector<std::string> files;
  for (const bool parallel : {false, true}) {
    Job job;
    job.rip.options.parallel_channels_min_pixels = parallel ? 1 : ~0ull;
    job.rip.options.white_choke_enabled = true;
    job.rip.options.strip_h_px = 64;
    test::write_tiff(job.input, picture(120, 200));
    const test::LogCapture log;
    job.run();
    EXPECT_EQ(log.contains("StreamRip: parallel channel RIP enabled, threads="), parallel);
    files.push_back(test::read_all(job.output));
  }
  EXPECT_EQ(files[0], files[1]);
}

TEST(StreamRip, SizeFollowsResolutionAndOverrides) {
  Job job;
  TiffFile tiff = picture(24, 12);
  tiff.x_resolution = tiff.y_resolution = 240;
  test::write_tiff(job.input, tiff);
  const auto size = [&](float w, float h) {
    const PrintFile file = job.run(w, h);
    return std::pair(file.width, file.height);
  };
  EXPECT_EQ(size(0, 0), std::pair(72u, 90u)) << "0.1 x 0.05 inch";
  EXPECT_EQ(size(0.2f, 0), std::pair(144u, 180u));
  EXPECT_EQ(size(0, 0.2f), std::pair(288u, 360u));
  EXPECT_EQ(size(0.5f, 0.1f), std::pair(360u, 180u));
  EXPECT_EQ(size(-1, std::numeric_limits<float>::infinity()), std::pair(72u, 90u));
}

TEST(StreamRip, LogTellsThePlan) {
  Job job;
  job.rip.options.white_choke_enabled = true;
  test::write_tiff(job.input, picture(30, 30));
  const test::LogCapture log(LogLevel::info);
  job.run();
  const std::vector<std::string> expected = {
      "[INFO ] White choke: enabled=true, strategy=production, rip_algorithm=adaptive, "
      "requested_strategy=production, "
      "debug_env_override=false, amount_px@300=1.5, runtime_radius_px=1.5, min_width_dots=3, "
      "light_protection=true, "
      "lightness_threshold=85, insertion_stage=rip_pre_threshold_device_domain",
      "[INFO ] Resampling: color=smooth, color_linear_light=true, white=smooth",
      "[INFO ] StreamRip: white choke canvas pad applied: 0.00666667 in",
      "[INFO ] source-driven layout dpi selected: 300",
      "[INFO ] StreamRip: 34x34 px @ 300 dpi   " + job.output,
      "[INFO ] StreamRip: physical 0.113333x0.113333 in -> dev 82x204 @ 720x1800 dpi, 6pass",
      "[INFO ] StreamRip: 1 strips x 1024 px",
  };
  const std::vector<std::string> lines = log.lines();
  auto next = lines.begin();
  for (const std::string& line : expected) {
    next = std::find(next, lines.end(), line);
    ASSERT_NE(next, lines.end()) << "missing or out of order: " << line;
  }
  EXPECT_TRUE(log.contains("StreamRip: streaming mode enabled (strip compose -> rip -> write)"));
  EXPECT_EQ(lines.back(), "[INFO ] StreamRip: complete.");
}

TEST(StreamRip, ProgressAndCancel) {
  Job job;
  job.rip.options.strip_h_px = 10;
  test::write_tiff(job.input, picture(20, 35));
  std::vector<RipProgress> seen;
  job.rip.progress = [&](const RipProgress& p) { seen.push_back(p); };
  job.run();
  ASSERT_EQ(seen.size(), 6u);
  EXPECT_EQ(seen[1].message, "Streaming strip 2/4");
  EXPECT_FLOAT_EQ(seen[1].percent, 23.75f);
  EXPECT_EQ(seen[4].message, "Finalizing .prt");
  EXPECT_EQ(seen[5].message, "Done");

  const std::string before = test::read_all(job.output);
  for (const int polls : {1, 3}) {
    int left = polls;
    job.rip.cancel = [&] { return --left == 0; };
    EXPECT_THROW(job.run(), RipCancelledError);
    EXPECT_EQ(test::read_all(job.output), before) << "the older file stays";
    EXPECT_EQ(job.dir.names(), (std::vector<std::string>{"art.prt", "art.tif"}));
  }
}

TEST(StreamRip, EmptySheetWarnsAndWritesNothing) {
  Job job;
  const test::LogCapture log;
  job.rip.run({{}, 5.0f}, job.output, job.settings);
  EXPECT_TRUE(log.contains("[WARN ] StreamRip: empty sheet width, nothing to rip"));
  LayoutItem flat;
  flat.width_in = 1.0f;
  flat.path = job.input;
  job.rip.run({{flat}, 0.0f}, job.output, job.settings);
  EXPECT_TRUE(log.contains("[WARN ] StreamRip: empty sheet, nothing to rip"));
  EXPECT_TRUE(job.dir.names().empty());
}

TEST(StreamRip, BadOptionsAndSheetsThatCannotFitFailBeforeAnyFile) {
  Job job;
  test::write_tiff(job.input, picture(20, 20));
  job.rip.options.strip_h_px = 0;
  EXPECT_EQ(failure_of([&] { job.run(); }), "StreamRip: strip_h_px must be > 0");
  job.rip.options.strip_h_px = 1024;
  EXPECT_EQ(failure_of([&] { job.run(2000, 10); }), "DropMap: allocation exceeds 2 GiB cap");
  job.rip.options.src_dpi = 0;
  EXPECT_EQ(failure_of([&] { job.run(); }), "StreamRip: src_dpi/x_dpi/y_dpi must be > 0");
  EXPECT_EQ(job.dir.names(), std::vector<std::string>{"art.tif"});
}

// Far out the two ways of sizing the device grid part by a dot; such a sheet is refused before it races or
// overruns.
TEST(StreamRip, SheetsBeyondTheExactRangeAreRefused) {
  Job job;
  job.rip.options.print_mode = *find_print_mode({}, "360x1200_2pass");
  job.rip.options.parallel_channels_min_pixels = 1;
  LayoutItem item;
  item.path = job.input;
  item.width_in = 1310727.0f / 300.0f;
  item.height_in = 1.0f / 300.0f;
  EXPECT_EQ(failure_of([&] {
              job.rip.run({{item}, item.height_in}, job.output, job.settings);
            }),
            "HosonWriter::write_dropmaps_strip: width mismatch");
  EXPECT_TRUE(job.dir.names().empty());
}

// A sheet that is coarser on the device than in the source goes through memory as a whole.
TEST(StreamRip, FullBufferPathServesCoarseDevices) {
  for (const bool choke : {false, true}) {
    Job job;
    RipJobOptions& options = job.rip.options;
    options.src_dpi = 600;
    options.print_head = 2;
    options.print_mode = *find_print_mode(options.head(), "xp600_360x360");
    options.white_choke_enabled = choke;
    options.strip_h_px = 50;
    TiffFile tiff = picture(120, 130);
    tiff.x_resolution = tiff.y_resolution = 600;
    test::write_tiff(job.input, tiff);
    std::vector<std::string> messages;
    job.rip.progress = [&](const RipProgress& p) { messages.push_back(p.message); };
    const test::LogCapture log;
    const PrintFile file = job.run();
    EXPECT_TRUE(log.contains("[WARN ] StreamRip: Y scale 600->360) is using compatibility full-buffer path"));
    EXPECT_TRUE(file.is_whole);
    EXPECT_EQ(file.slots, 7u);
    EXPECT_EQ(messages.front(), "Compositing strip 1/3");
    EXPECT_EQ(messages[3], "Ripping channel 1/5");
    EXPECT_EQ(messages[8], "Writing .prt");
  }
}

}  // namespace
}  // namespace nvo
