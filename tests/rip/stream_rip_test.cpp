#include "rip/stream_rip.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "rip/rip_job.h"
#include "rip/sheet_plan.h"
#include "support/failure.h"

namespace nvo {
namespace {

using test::failure_of;
using test::Job;
using test::picture;
using test::PrintFile;

TEST(StreamRip, SizeFollowsResolutionAndOverrides) {
  Job job;
  test::write_tiff(job.input, picture(24, 12, 240));
  const float none = -1, infinity = std::numeric_limits<float>::infinity();
  for (const auto& [width_in, height_in, width, height] : {std::tuple(0.0f, 0.0f, 72u, 90u),
                                                           {0.2f, 0, 144, 180},
                                                           {0, 0.2f, 288, 360},
                                                           {0.5f, 0.1f, 360, 180},
                                                           {none, infinity, 72, 90}}) {
    const PrintFile file = job.run(width_in, height_in);
    EXPECT_EQ(std::tuple(file.width, file.height), std::tuple(width, height)) << width_in << " " << height_in;
  }
}

TEST(StreamRip, PlanTellsWhatTheRunTakes) {
  Job job;
  RipJobOptions& options = job.rip.options;
  options.src_dpi = 600;
  options.print_head = 2;
  options.white_choke_enabled = true;
  options.strip_h_px = 20;
  test::write_tiff(job.input, picture(90, 150, 600));
  LayoutItem item;
  item.path = job.input;
  item.width_in = 0.15f, item.height_in = 0.25f;
  for (const auto& [mode, streams, halo, memory] :
       {std::tuple("xp600_360x720", true, 11u, 91'266u), {"xp600_720x540", false, 0u, 336'928u}}) {
    options.print_mode = *find_print_mode(options.head(), mode);
    const SheetPlan plan = plan_sheet(options, {{item}, item.height_in});
    EXPECT_EQ(plan.strips.halo, halo);
    EXPECT_EQ(plan.memory_bytes, memory);
    std::vector<RipProgress> seen;
    job.rip.progress = [&](const RipProgress& progress) { seen.push_back(progress); };
    const PrintFile file = job.run();
    EXPECT_EQ(std::tuple(file.width, file.height, test::read_all(job.output).size()),
              std::tuple(plan.strips.dev_w, plan.strips.dev_h, plan.print_bytes + 48));
    EXPECT_EQ(seen.front().stage_count, static_cast<int>(plan.strips.count));
    EXPECT_EQ(plan.streaming, streams);
    EXPECT_EQ(seen.back().rows, streams ? plan.strips.dev_h : 0);
  }
}

TEST(StreamRip, PlanSettlesWhatIsGivenTwice) {
  RipJobOptions options;
  options.icc.output_profile = "a";
  options.x_dpi = 540, options.y_dpi = 900, options.passes = 5;
  const auto settled = [&] {
    const SheetPlan plan = plan_sheet(options, {{{"", "", "", 0, 0, 1, 1}}, 1});
    return std::tuple(plan.icc.output_profile, plan.strips.x_dpi, plan.mode.y_dpi, plan.mode.passes);
  };
  EXPECT_EQ(settled(), std::tuple("a", 540u, 900u, 5u));
  options.print_mode.id = "720x1200_4pass";
  for (const auto member :
       {&IccSettings::input_rgb_profile, &IccSettings::input_cmyk_profile, &IccSettings::output_profile}) {
    options.job_icc = {};
    options.job_icc.*member = "b";
    EXPECT_EQ(settled(), std::tuple(options.job_icc.output_profile, 720u, 1200u, 4u));
  }
  options.job_icc = {};
  options.job_icc.enabled = true;
  EXPECT_EQ(settled(), std::tuple("", 720u, 1200u, 4u));
}

TEST(StreamRip, LogTellsThePlan) {
  Job job;
  RipJobOptions& options = job.rip.options;
  options.white_choke_enabled = true;
  options.performance.mode = PerformanceMode::manual;
  options.performance.parallel_channels = TriState::on;
  options.performance.channel_threads = 3;
  options.cache_dir = job.dir.file("masks");
  std::filesystem::create_directory_symlink(NVO_TEST_MASK_DIR, options.cache_dir);
  test::write_tiff(job.input, picture(30, 30));
  job.run();
  const std::string lines[] = {"Resampling: color=smooth, color_linear_light=true, white=smooth",
                               "StreamRip: white choke canvas pad applied: 0.00666667 in",
                               "StreamRip: 34x34 px @ 300 dpi   " + job.output,
                               "StreamRip: physical 0.113333x0.113333 in -> dev 82x204 @ 720x1800 dpi, 6pass",
                               "StreamRip: parallel channel RIP enabled, threads=3",
                               "MaskCache: loaded from " + options.cache_dir};
  for (const std::string& line : lines) EXPECT_EQ(job.log.count("[INFO ] " + line), 1u) << line;
  EXPECT_TRUE(
      job.log.contains("White choke: enabled=true, strategy=production, rip_algorithm=adaptive, "
                       "requested_strategy=production, debug_env_override=false, amount_px@300=1.5, "
                       "runtime_radius_px=1.5, min_width_dots=3, light_protection=true, "
                       "lightness_threshold=85, insertion_stage=rip_pre_threshold_device_domain"));
}

TEST(StreamRip, ProgressAndCancel) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"xp600_360x720",
       {"0/3 0% Streaming strip 1/3, 0", "1/3 31% Streaming strip 2/3, 6", "2/3 63% Streaming strip 3/3, 18",
        "3/3 97% Finalizing .prt, 30", "3/3 100% Done, 30"}},
      {"xp600_360x540",
       {"0/3 0% Compositing strip 1/3, 0", "1/3 15% Compositing strip 2/3, 0",
        "2/3 30% Compositing strip 3/3, 0", "0/5 45% Ripping channel 1/5, 0",
        "1/5 54% Ripping channel 2/5, 0", "2/5 63% Ripping channel 3/5, 0", "3/5 72% Ripping channel 4/5, 0",
        "4/5 81% Ripping channel 5/5, 0", "3/3 95% Writing .prt, 0", "3/3 100% Done, 0"}},
  };
  for (const auto& [mode, progress] : cases) {
    Job job;
    RipJobOptions& options = job.rip.options;
    options.src_dpi = 600;
    options.print_head = 2;
    options.print_mode = *find_print_mode(options.head(), mode);
    options.strip_h_px = 10;
    test::write_tiff(job.input, picture(20, 25, 600));
    std::vector<std::string> seen;
    job.rip.progress = [&](const RipProgress& p) {
      seen.push_back(std::to_string(p.stage) + "/" + std::to_string(p.stage_count) + " " +
                     std::to_string(static_cast<int>(p.percent)) + "% " + p.message + ", " +
                     std::to_string(p.rows));
    };
    job.run();
    EXPECT_EQ(seen, progress);
    EXPECT_EQ(
        job.log.contains("[WARN ] StreamRip: Y scale 600->540) is using compatibility full-buffer path"),
        options.print_mode.y_dpi == 540);

    const std::string before = test::read_all(job.output);
    for (const int polls : {1, 3}) {
      int left = polls;
      job.rip.cancel = [&] { return --left == 0; };
      EXPECT_THROW(job.run(), RipCancelledError);
      EXPECT_EQ(test::read_all(job.output), before) << "the older file stays";
      EXPECT_EQ(job.dir.names(), (std::vector<std::string>{"art.prt", "art.tif"}));
    }
  }
}

// A strip of eleven bands. How many of them are told of depends on the threads; one at least is.
TEST(StreamRip, PercentRisesWithinAStrip) {
  Job job;
  test::write_tiff(job.input, picture(3000, 700));
  std::vector<RipProgress> seen;
  job.rip.progress = [&](const RipProgress& progress) { seen.push_back(progress); };
  job.run();
  ASSERT_GT(seen.size(), 3u);
  for (std::size_t i = 1; i < seen.size(); ++i) {
    EXPECT_GT(seen[i].percent, seen[i - 1].percent);
    EXPECT_EQ(seen[i].message == "Streaming strip 1/1", i + 2 < seen.size());
    EXPECT_GE(seen[i].rows, seen[i - 1].rows);
  }
}

// The limit of a file's size stands for a full disk. Small bands and strips make many places to fail at.
TEST(StreamRip, AWriteThatFailsEndsTheJobWithItsReason) {
  Job job;
  job.rip.options.strip_h_px = 5;
  test::write_tiff(job.input, picture(40, 60));
  job.run();
  const std::string before = test::read_all(job.output);
  rlimit usual{};
  getrlimit(RLIMIT_FSIZE, &usual);
  const auto action = std::signal(SIGXFSZ, SIG_IGN);
  for (std::size_t size = 0; size < before.size(); size += before.size() / 40) {
    const rlimit limit{size, usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    const std::string reason = failure_of([&] { job.run(); });
    setrlimit(RLIMIT_FSIZE, &usual);
    EXPECT_THAT(reason, testing::AnyOf("write_dropmaps: failed to write strip row cycles",
                                       "HosonWriter::end_stream_write: flush/commit failed: " + job.output))
        << size;
    EXPECT_EQ(test::read_all(job.output), before) << "the older file stays";
    EXPECT_EQ(job.dir.names(), (std::vector<std::string>{"art.prt", "art.tif"}));
  }
  std::signal(SIGXFSZ, action);
}

TEST(StreamRip, SheetsThatCannotBePrintedFailBeforeAnyFile) {
  Job job;
  LayoutItem item;
  item.path = job.input;
  const auto failure_of_sheet = [&](float width_in, float height_in) {
    item.width_in = width_in;
    item.height_in = height_in;
    return failure_of([&] { job.rip.run({{item}, height_in}, job.output, job.settings); });
  };
  EXPECT_EQ(failure_of_sheet(0, 5), "");
  EXPECT_TRUE(job.log.contains("[WARN ] StreamRip: empty sheet width, nothing to rip"));
  EXPECT_EQ(failure_of_sheet(1, 0), "");
  EXPECT_TRUE(job.log.contains("[WARN ] StreamRip: empty sheet, nothing to rip"));
  EXPECT_EQ(failure_of_sheet(2000, 10), "DropMap: allocation exceeds 2 GiB cap");
  job.rip.options.print_mode = *find_print_mode({}, "360x1200_2pass");
  // So far out the two ways of sizing the device grid part by a dot; screening would race or overrun.
  EXPECT_EQ(
      failure_of_sheet(1310727.0f / 300.0f, 1.0f / 300.0f),
      "StreamRip: the sheet is too wide to be screened exactly: 1310727 source pixels are 1572872 dots, but "
      "single precision makes them 1572873");
  job.rip.options.print_head = 2;
  job.rip.options.print_mode = *find_print_mode({0, 2}, "xp600_360x720");
  EXPECT_EQ(
      failure_of_sheet(1.0f / 300.0f, 655361.0f / 300.0f),
      "StreamRip: the sheet is too long to be screened exactly: 655361 source pixels are 1572866 dots, but "
      "single precision makes them 1572867");
  job.rip.options.src_dpi = 600;
  job.rip.options.print_mode = *find_print_mode({0, 2}, "xp600_360x540");
  EXPECT_THAT(failure_of_sheet(22, 60), testing::StartsWith("StreamRip full-buffer memory cap exceeded"));
  job.rip.options.strip_h_px = 0;
  EXPECT_EQ(failure_of_sheet(1, 1), "StreamRip: strip_h_px must be > 0");
  job.rip.options.src_dpi = 0;
  EXPECT_EQ(failure_of_sheet(1, 1), "StreamRip: src_dpi/x_dpi/y_dpi must be > 0");
  EXPECT_TRUE(job.dir.names().empty());
}

}  // namespace
}  // namespace nvo
