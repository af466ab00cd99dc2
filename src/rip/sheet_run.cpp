#include "rip/sheet_run.h"

#include <new>
#include <utility>

#include "core/log.h"
#include "core/platform/clock.h"
#include "rip/job_summary.h"
#include "rip/print_review.h"

namespace nvo {
namespace {

RipEngineParams engine_params(const SheetPlan& plan, const RipSettings& rip_settings) {
  RipEngineParams params;
  params.src_dpi = plan.strips.src_dpi;
  params.x_dpi = plan.strips.x_dpi;
  params.y_dpi = plan.strips.y_dpi;
  params.n_channels = static_cast<std::int32_t>(kChannelCount);
  hand_over<DeviceChoke>(plan.choke, params);
  params.color_resampling = plan.options.color_resampling_mode;
  params.white_resampling = plan.options.white_resampling_mode;
  params.cache_dir = plan.options.cache_dir;
  params.linear_lut = channel_curves(rip_settings);
  params.threads = plan.threads;
  return params;
}

StripCompositorConfig compositor_config(const SheetPlan& plan) {
  StripCompositorConfig config;
  hand_over<Resampling>(plan.options, config);
  hand_over<WhiteInkLimit>(plan.options, config);
  config.threads = plan.threads;
  config.sheet_width_in = plan.size.width_in;
  config.sheet_height_in = plan.size.height_in;
  config.src_dpi = plan.strips.src_dpi;
  config.strip_h_px = plan.strips.strip_rows;
  return config;
}

HosonWriterOptions writer_options(const SheetPlan& plan) {
  return {plan.options.head(), plan.mode, plan.options.output_channel_map, plan.options.keep_existing_output,
          plan.threads};
}

void log_path(const SheetPlan& plan) {
  const std::uint32_t src_dpi = plan.strips.src_dpi, y_dpi = plan.strips.y_dpi;
  if (!plan.streaming)
    log_warn("StreamRip: Y scale ", src_dpi, "->", y_dpi, ") is using compatibility full-buffer path");
  else if (y_dpi % src_dpi == 0)
    log_info("StreamRip: streaming mode enabled (strip compose -> rip -> write)");
  else
    log_info("StreamRip: streaming mode enabled with fractional Y scale (", src_dpi, "->", y_dpi,
             ", strip compose + halo -> rip -> write)");
}

}  // namespace

SheetRun::SheetRun(const StreamRip& rip, const SheetPlan& sheet_plan, const RipSettings& rip_settings,
                   const std::string& path)
    : job(rip),
      plan(sheet_plan),
      output_path(path),
      compositor(compositor_config(plan)),
      engine(engine_params(plan, rip_settings)),
      writer(writer_options(plan)),
      choke(plan.choke),
      profiling_(profile_enabled()) {
  compositor.set_layout(plan.layout);
  compositor.set_icc_settings(plan.icc);
  compositor.set_profiling(profiling_);
  compositor.reset_counters();
  writer.set_timing(profiling_);
  if (!plan.parallel_channels) return;
  own_pool = make_thread_pool(plan.threads.channel_threads());
  pool = own_pool.get();
  engine.ensure_column_taps(plan.strips.src_w, engine.device_width(plan.strips.src_w));
}

void SheetRun::print(std::uint64_t start) {
  log_path(plan);
  if (plan.streaming)
    run_streaming(*this);
  else
    run_full_buffer(*this);
  if (profiling_) complete_profile(start);
  report_after_print();
}

void SheetRun::complete_profile(std::uint64_t start) {
  profile.streaming = plan.streaming;
  profile.parallel_channels = plan.parallel_channels;
  profile.src_width_px = plan.strips.src_w;
  profile.src_height_px = plan.strips.src_h;
  profile.dev_width_px = plan.strips.dev_w;
  profile.dev_height_px = plan.strips.dev_h;
  profile.strip_count = plan.strips.count;
  profile.compositor = compositor.read_counters();
  profile.writer_counters = writer.counters();
  profile.total = platform::monotonic_nanoseconds() - start;
}

/// What is told once the print file stands. It stands whether or not there is memory to tell of it.
void SheetRun::report_after_print() try {
  const auto strips = static_cast<int>(plan.strips.count);
  report(strips, strips, 100.0f, "Done", plan.streaming ? plan.strips.dev_h : 0);
  if (profiling_) report_profile(profile, output_path);
  log_info("StreamRip: complete.");
} catch (const std::bad_alloc&) {
}

void SheetRun::report(int stage, int stage_count, float percent, std::string message, std::uint64_t rows) {
  if (percent < most_percent_) return;
  most_percent_ = percent;
  if (job.progress) job.progress({stage, stage_count, percent, std::move(message), rows});
}

void SheetRun::throw_if_cancelled() const {
  if (!job.cancel || !job.cancel()) return;
  log_info("StreamRip: cancelled.");
  throw RipCancelledError("RIP cancelled");
}

void SheetRun::begin_sheet(StripOrder order) {
  writer.give_up();
  writer.reset_counters();
  compositor.begin_sheet(order == StripOrder::top_down);
  profile = {};
}

void SheetRun::announce() {
  if (std::exchange(announced_, true)) return;
  const auto& items = plan.layout.items;
  log_job_summary(plan, items.size() == 1 ? compositor.item_meta(items.front()) : std::nullopt);
}

void SheetRun::require_printed(bool any_drop) const {
  review_print(compositor.item_reports(), any_drop, plan.strips.src_dpi);
}

ComposedStrip SheetRun::view(const StripBuffer& strip) const {
  return {.src_y = strip.y,
          .total_src_rows = plan.strips.src_h,
          .inks = {strip.ink(0), strip.ink(1), strip.ink(2), strip.ink(3), strip.ink(4)},
          .explicit_white = strip.explicit_view()};
}

}  // namespace nvo
