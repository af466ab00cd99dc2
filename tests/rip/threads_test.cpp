// Thread counts and the order of tasks: neither may show in the print file.

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "rip/rip_job.h"
#include "rip/sheet_run.h"

namespace nvo {
namespace {

using test::Job;

constexpr const char* kSwitches[] = {"NVO_RIP_PARALLEL_CHANNELS", "NVO_RIP_PARALLEL_ROWS",
                                     "NVO_RIP_PARALLEL_WRITER_ROWS", "NVO_RIP_PARALLEL_COMPOSE_ITEMS"};
constexpr const char* kCounts[] = {"NVO_RIP_ROW_THREADS", "NVO_RIP_WRITER_THREADS",
                                   "NVO_RIP_COMPOSE_THREADS"};
constexpr std::uint32_t kSheetHeight = 90;  // source pixels

/// A job whose sheet has the same picture four times, so that items, rows, channels and the writer all have
/// work to share.
class Threads : public testing::Test {
 protected:
  void prepare(std::uint32_t src_dpi, const PrintMode& mode) {
    RipJobOptions& options = job.rip.options;
    options.src_dpi = src_dpi;
    options.print_mode = mode;
    options.white_choke_enabled = true;
    options.strip_h_px = 40;
    const test::TiffFile tiff = test::picture(56, 41, src_dpi, false);
    test::write_tiff(job.input, tiff);
    sheet = {};
    for (std::uint32_t i = 0; i < 4; ++i)
      sheet.items.push_back({"item", "item", job.input, inches(i % 2 * 60), inches(i / 2 * 45),
                             inches(tiff.width), inches(tiff.height), false});
    sheet.height_in = inches(kSheetHeight);
  }
  void TearDown() override {
    for (const char* name : kSwitches) ::unsetenv(name);
    for (const char* name : kCounts) ::unsetenv(name);
  }
  float inches(std::uint32_t pixels) const {
    return static_cast<float>(pixels) / static_cast<float>(job.rip.options.src_dpi);
  }

  /// Bit i of `set` turns on the i-th switch.
  std::string print(unsigned set, std::uint32_t threads) {
    for (std::size_t i = 0; i < std::size(kSwitches); ++i)
      ::setenv(kSwitches[i], (set >> i & 1) != 0 ? "1" : "0", 1);
    for (const char* name : kCounts) ::setenv(name, std::to_string(threads).c_str(), 1);
    job.rip.options.performance.mode = PerformanceMode::manual;
    job.rip.options.performance.channel_threads = threads;
    job.rip.run(sheet, job.output, job.settings);
    return test::read_all(job.output);
  }

  /// Sends the sheet down a path with a pool of the test's own.
  std::string print(void (*path)(SheetRun&), Executor* pool) {
    const SheetPlan plan = plan_sheet(job.rip.options, sheet);
    SheetRun run(job.rip, plan, job.settings, job.output);
    run.pool = pool;
    if (pool) run.engine.ensure_column_taps(plan.strips.src_w, plan.strips.dev_w);
    path(run);
    return test::read_all(job.output);
  }

  Job job;
  SheetLayout sheet;
};

TEST_F(Threads, EveryCombinationOfSwitchesGivesTheSerialFile) {
  job.rip.options.print_head = 2;
  for (const bool streaming : {true, false}) {
    prepare(600, *find_print_mode(job.rip.options.head(), streaming ? "xp600_720x1080" : "xp600_360x540"));
    const std::string serial = print(0, 1);
    ASSERT_TRUE(test::PrintFile(serial).is_whole);
    for (unsigned set = 1; set < 16; ++set) {
      for (const std::uint32_t threads : {1u, 2u, 3u, 5u, 8u}) {
        if (!streaming && threads != 3) continue;
        ASSERT_TRUE(print(set, threads) == serial) << set << " x " << threads;
      }
    }
  }
}

// A strip of several bands, two of which are in work at a time.
TEST_F(Threads, BandsShareNothingWhileTwoAreInWork) {
  prepare(300, default_print_mode({}));
  job.rip.options.strip_h_px = 1024;
  test::write_tiff(job.input, test::picture(700, 1100));
  sheet = {{{"item", "item", job.input, 0, 0, inches(700), inches(1100)}}, inches(1100)};
  const std::string serial = print(0, 1);
  for (const std::uint32_t threads : {2u, 5u, 3u, 5u}) ASSERT_TRUE(print(1, threads) == serial) << threads;
}

/// Runs tasks five by five, the channels of a strip, in an order drawn from a seed.
class ShuffledPool final : public Executor {
 public:
  ShuffledPool(std::uint32_t seed, std::size_t workers) : random_(seed), pool_(workers) {}

 private:
  void post(std::function<void()> task) override {
    tasks_.push_back(std::move(task));
    if (tasks_.size() < kChannelCount) return;
    std::shuffle(tasks_.begin(), tasks_.end(), random_);
    for (auto& ready : tasks_) pool_.submit([work = std::move(ready)](std::size_t) { work(); }, 0);
    tasks_.clear();
  }

  std::mt19937 random_;
  std::vector<std::function<void()>> tasks_;
  ThreadPool pool_;
};

// Both paths serve a sheet whose device rows are not coarser than its source rows.
TEST_F(Threads, PathsAgreeWhateverTheOrderOfTheChannels) {
  for (const std::uint32_t y_dpi : {300u, 1200u}) {
    prepare(300, {});
    RipJobOptions& options = job.rip.options;
    options.x_dpi = 720, options.y_dpi = y_dpi, options.passes = 6;
    options.output_channel_map = {3, 0, kChannelOff, 2, 4, 4};
    const std::string serial = print(run_full_buffer, nullptr);
    ASSERT_TRUE(test::PrintFile(serial).is_whole);
    ASSERT_TRUE(print(run_streaming, nullptr) == serial);
    for (const auto path : {run_streaming, run_full_buffer}) {
      for (std::uint32_t seed = 0; seed < 8; ++seed) {
        ShuffledPool pool(seed, 1 + seed % 2 * 2);
        ASSERT_TRUE(print(path, &pool) == serial) << seed;
      }
    }
  }
}

}  // namespace
}  // namespace nvo
