// Thread counts, the order of tasks and the path that a sheet takes: none of them may show in the print file.

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

/// Sets environment variables while it lives.
class Environment {
 public:
  explicit Environment(std::vector<std::pair<std::string, std::string>> values) : values_(std::move(values)) {
    for (const auto& [name, value] : values_) ::setenv(name.c_str(), value.c_str(), 1);
  }
  ~Environment() {
    for (const auto& [name, value] : values_) ::unsetenv(name.c_str());
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  std::vector<std::pair<std::string, std::string>> values_;
};

/// The same picture four times on a sheet, so that items, rows, channels and the writer all have work to
/// share.
SheetLayout sheet_of_four(const Job& job, std::uint32_t dpi) {
  test::TiffFile tiff = test::picture(56, 41);
  tiff.extra_samples = {EXTRASAMPLE_UNASSALPHA};  // white that the choke may change
  tiff.x_resolution = tiff.y_resolution = static_cast<float>(dpi);
  test::write_tiff(job.input, tiff);
  SheetLayout sheet;
  const auto inches = [&](std::uint32_t pixels) {
    return static_cast<float>(pixels) / static_cast<float>(dpi);
  };
  for (std::uint32_t i = 0; i < 4; ++i)
    sheet.items.push_back({"item", "item", job.input, inches(i % 2 * 60), inches(i / 2 * 45),
                           inches(tiff.width), inches(tiff.height), false});
  sheet.height_in = inches(90);
  return sheet;
}

struct Switches {
  bool channels, rows, writer, compose;
  std::uint32_t threads;
};

std::string print_with(Job& job, const SheetLayout& sheet, const Switches& s) {
  const auto on = [](bool value) { return value ? "1" : "0"; };
  const std::string threads = std::to_string(s.threads);
  const Environment environment({{"NVO_RIP_PARALLEL_CHANNELS", on(s.channels)},
                                 {"NVO_RIP_PARALLEL_ROWS", on(s.rows)},
                                 {"NVO_RIP_ROW_THREADS", threads},
                                 {"NVO_RIP_PARALLEL_WRITER_ROWS", on(s.writer)},
                                 {"NVO_RIP_WRITER_THREADS", threads},
                                 {"NVO_RIP_PARALLEL_COMPOSE_ITEMS", on(s.compose)},
                                 {"NVO_RIP_COMPOSE_THREADS", threads}});
  job.rip.options.performance.mode = PerformanceMode::manual;
  job.rip.options.performance.channel_threads = s.threads;
  job.rip.run(sheet, job.output, job.settings);
  return test::read_all(job.output);
}

TEST(Threads, EveryCombinationOfSwitchesGivesTheSerialFile) {
  for (const bool streaming : {true, false}) {
    Job job;
    RipJobOptions& options = job.rip.options;
    options.src_dpi = 600;
    options.print_head = 2;
    options.print_mode = *find_print_mode(options.head(), streaming ? "xp600_720x1080" : "xp600_360x540");
    options.white_choke_enabled = true;
    options.strip_h_px = 40;
    const SheetLayout sheet = sheet_of_four(job, options.src_dpi);
    const std::string serial = print_with(job, sheet, {false, false, false, false, 1});
    ASSERT_TRUE(test::PrintFile(serial).is_whole);
    for (unsigned set = 1; set < 16; ++set) {
      for (const std::uint32_t threads : {1u, 2u, 3u, 5u, 8u}) {
        if (!streaming && threads != 3) continue;
        const Switches switches{(set & 1) != 0, (set & 2) != 0, (set & 4) != 0, (set & 8) != 0, threads};
        ASSERT_TRUE(print_with(job, sheet, switches) == serial) << set << " x " << threads;
      }
    }
  }
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

/// One sheet with its compositor, engine and writer, to be sent down either path.
class Sheet {
 public:
  Sheet(std::uint32_t src_dpi, std::uint32_t x_dpi, std::uint32_t y_dpi, bool choke)
      : mode_{"", "", x_dpi, y_dpi, 6, 2} {
    job_.rip.options.src_dpi = src_dpi;
    layout_ = sheet_of_four(job_, src_dpi);
    plan_.device_choke = plan_.adaptive = plan_.protect_light = choke;
    plan_.min_width_dots = 3;
    plan_.light.emplace(plan_.lightness_threshold);
  }

  std::string print(void (*path)(SheetRun&), std::uint32_t strip_h, Executor* pool) {
    RipJobOptions& options = job_.rip.options;
    options.strip_h_px = strip_h;
    StripCompositorConfig config;
    config.src_dpi = options.src_dpi;
    config.sheet_width_in = 116.0f / static_cast<float>(options.src_dpi);
    config.sheet_height_in = layout_.height_in;
    StripCompositor compositor(config);
    compositor.set_layout(layout_);
    RipEngine engine(engine_params());
    HosonWriter writer({options.head(), mode_, {}});
    SheetRun run{.job = job_.rip,
                 .options = options,
                 .output_path = job_.output,
                 .mode = mode_,
                 .choke = plan_,
                 .src_w = 116,
                 .src_h = 90,
                 .dev_w = 116 * mode_.x_dpi / options.src_dpi,
                 .dev_h = 90 * mode_.y_dpi / options.src_dpi,
                 .strips = (90 + strip_h - 1) / strip_h,
                 .compositor = compositor,
                 .engine = engine,
                 .writer = writer,
                 .pool = pool,
                 .scratch = {},
                 .profile = {}};
    if (pool) engine.ensure_column_taps(run.src_w, run.dev_w);
    path(run);
    return test::read_all(job_.output);
  }

 private:
  RipEngineParams engine_params() const {
    RipEngineParams params;
    params.src_dpi = job_.rip.options.src_dpi;
    params.x_dpi = mode_.x_dpi, params.y_dpi = mode_.y_dpi;
    params.n_channels = kChannelCount;
    params.cache_dir = job_.rip.options.cache_dir;
    params.linear_lut = channel_curves(job_.settings);
    params.white_resampling = SamplingMode::smooth;
    params.white_choke_enabled = plan_.device_choke;
    params.white_choke_amount_px_at_300dpi = job_.rip.options.white_choke_amount_px_at_300dpi;
    params.white_choke_strategy = WhiteChokeStrategy::production;
    params.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
    return params;
  }

  Job job_;
  PrintMode mode_;
  ChokePlan plan_;
  SheetLayout layout_;
};

TEST(Threads, ChannelTasksMayRunInAnyOrder) {
  Sheet sheet(300, 720, 1200, true);
  for (const auto path : {run_streaming, run_full_buffer}) {
    const std::string serial = sheet.print(path, 30, nullptr);
    ASSERT_TRUE(test::PrintFile(serial).is_whole);
    for (const std::size_t workers : {1u, 3u}) {
      for (std::uint32_t seed = 0; seed < 6; ++seed) {
        ShuffledPool pool(seed, workers);
        ASSERT_TRUE(sheet.print(path, 30, &pool) == serial) << seed << " on " << workers;
      }
    }
  }
}

// Both paths serve a sheet whose device rows are not coarser than its source rows.
TEST(Paths, StripsAndTheWholeSheetGiveTheSameDrops) {
  struct Case {
    std::uint32_t src_dpi, x_dpi, y_dpi;
  };
  for (const Case& c : {Case{300, 360, 300}, Case{300, 720, 1200}, Case{300, 720, 1800}, Case{300, 360, 540},
                        Case{600, 720, 720}, Case{600, 720, 900}}) {
    for (const bool choke : {false, true}) {
      Sheet sheet(c.src_dpi, c.x_dpi, c.y_dpi, choke);
      const std::string whole = sheet.print(run_full_buffer, 1024, nullptr);
      ASSERT_TRUE(test::PrintFile(whole).is_whole);
      for (const std::uint32_t strip_h : {1024u, 45u, 7u})
        EXPECT_TRUE(sheet.print(run_streaming, strip_h, nullptr) == whole)
            << c.src_dpi << "->" << c.y_dpi << " in strips of " << strip_h << ", choke " << choke;
    }
  }
}

}  // namespace
}  // namespace nvo
