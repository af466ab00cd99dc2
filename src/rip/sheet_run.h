#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "compose/strip_compositor.h"
#include "core/threads/thread_pool.h"
#include "output/hoson_writer.h"
#include "rip/run_profile.h"
#include "rip/sheet_plan.h"
#include "rip/stream_rip.h"
#include "screen/choke/sheet_choke.h"
#include "screen/rip_engine.h"

namespace nvo {

/// What both paths of a run work with: a plan, and the stages set up for it. For one run.
struct SheetRun {
  /// Loads or makes the masks and starts the channel pool, if the plan has one and the system gives threads.
  /// The plan isn't one of a sheet that is missing a size; all arguments must outlive the run.
  SheetRun(const StreamRip& job, const SheetPlan& sheet_plan, const RipSettings& rip_settings,
           const std::string& path);

  const StreamRip& job;  ///< for its callbacks
  const SheetPlan& plan;
  const std::string& output_path;
  StripCompositor compositor;
  RipEngine engine;
  HosonWriter writer;
  SheetChoke choke;
  std::unique_ptr<ThreadPool> own_pool;
  Executor* pool = nullptr;  ///< null when the channels run one after another
  std::array<RipEngine::ProcessScratch, 2 * kChannelCount> scratch;  ///< two bands' tasks, five each
  StreamRipProfile profile;

  /// Prints the sheet along the path of its plan and tells how it went. `start` is when the run began, on the
  /// monotonic clock.
  void print(std::uint64_t start);

  /// Tells the caller, unless it was told of more before.
  void report(int stage, int stage_count, float percent, std::string message, std::uint64_t rows = 0);
  void throw_if_cancelled() const;
  /// Forgets what was made of the sheet, to make it in this order.
  void begin_sheet(StripOrder order);
  /// Tells what the job is, once; for when the file is open and no pixel made yet.
  void announce();
  /// Before the print file takes its name: says which images, or parts of them, are missing from a print with
  /// or without any dot. Throws where `NVO_RIP_STRICT` forbids such a print.
  void require_printed(bool any_drop) const;
  /// Views of a strip of the sheet, or of all of it.
  ComposedStrip view(const StripBuffer& strip) const;

 private:
  void complete_profile(std::uint64_t start);
  void report_after_print();

  const bool profiling_;
  bool announced_ = false;
  float most_percent_ = 0.0f;  ///< that was told
};

/// Strip by strip in the order of the plan.
void run_streaming(SheetRun& run);
/// The whole sheet at once.
void run_full_buffer(SheetRun& run);

}  // namespace nvo
