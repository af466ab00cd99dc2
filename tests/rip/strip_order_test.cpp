// The order in which strips are worked on: it may show neither in the print file nor in the log.

#include "rip/strip_order.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "image/raster_files.h"
#include "rip/rip_job.h"
#include "rip/sheet_plan.h"

namespace nvo {
namespace {

struct Outcome {
  std::string print;
  std::vector<std::string> log;
  bool rises = true;
};

Outcome print(test::Job& job, bool always_bottom_up, float width_in) {
  Outcome outcome;
  float percent = 0.0f;
  job.rip.options.always_bottom_up = always_bottom_up;
  job.rip.progress = [&](const RipProgress& progress) {
    outcome.rises = outcome.rises && progress.percent >= percent;
    percent = progress.percent;
  };
  Logger::instance().begin_job();
  job.log.take();
  job.rip.rip_single(job.input, job.output, job.settings, width_in, 0);
  for (std::string& line : job.log.take())
    if (line.find("[DEBUG]") == std::string::npos) outcome.log.push_back(std::move(line));
  outcome.print = test::read_all(job.output);
  return outcome;
}

// Damage in the last rows is found when most of the sheet is written; what lies behind the pixels is none.
TEST(StripOrder, ShowsNeitherInThePrintNorInTheLog) {
  const struct {
    std::uint32_t head, strip_rows, threads;
    float choke, width_in, kept;  ///< `kept` is the share of the file that is left
  } cases[] = {
      {0, 16, 1, 0.0f, 0, 1},    {0, 40, 4, 1.5f, 0, 1},    {2, 7, 2, 1.5f, 0.5f, 1},
      {2, 33, 4, 0.0f, 0.2f, 1}, {0, 16, 2, 1.5f, 0, 0.9f}, {2, 16, 2, 1.5f, 0.2f, 0.4f},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    test::Job job;
    RipJobOptions& options = job.rip.options;
    options.print_head = c.head;
    options.print_mode = default_print_mode(options.head());
    options.strip_h_px = c.strip_rows;
    options.white_choke_enabled = c.choke > 0.0f;
    options.white_choke_amount_px_at_300dpi = c.choke;
    options.performance.mode = PerformanceMode::manual;
    options.performance.channel_threads = c.threads;
    options.parallel_channels_min_pixels = 0;
    job.input = job.dir.file("art.png");
    test::PngFile png{.width = 101, .height = 120, .per_metre_x = 11811, .per_metre_y = 11811};
    png.pixel = [](std::uint32_t x, std::uint32_t y) {
      test::Rgba pixel = test::busy_pixel(x, y);
      if ((x / 9 + y / 11) % 3 != 0) pixel[3] = (x / 9) % 2 == 0 ? 255 : 0;
      return pixel;
    };
    const std::string bytes = png.bytes();
    test::write_all(job.input,
                    bytes.substr(0, static_cast<std::size_t>(c.kept * static_cast<float>(bytes.size()))));

    const Outcome from_bottom = print(job, true, c.width_in), from_top = print(job, false, c.width_in);
    EXPECT_TRUE(from_top.print == from_bottom.print);
    EXPECT_EQ(from_top.log, from_bottom.log);
    EXPECT_TRUE(from_top.rises);

    const float width = c.width_in > 0 ? c.width_in : 101 / 300.0f;
    const SheetLayout sheet{{{"a", "a", job.input, 0, 0, width, width * 120 / 101, false}}, 0};
    EXPECT_EQ(choose_strip_order(plan_sheet(options, sheet)), StripOrder::top_down);
  }
}

}  // namespace
}  // namespace nvo
