#include "rip/sheet_plan.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

#include "output/prt_format.h"
#include "plan/performance.h"
#include "rip/memory_estimate.h"
#include "screen/device_grid.h"

namespace nvo {
namespace {

PrintMode checked_print_mode(const RipJobOptions& options) {
  const PrintMode mode = effective_print_mode(options.head(), options.print_mode, options);
  if (options.src_dpi == 0 || mode.x_dpi == 0 || mode.y_dpi == 0)
    throw std::invalid_argument("StreamRip: src_dpi/x_dpi/y_dpi must be > 0");
  if (options.strip_h_px == 0) throw std::invalid_argument("StreamRip: strip_h_px must be > 0");
  return mode;
}

const IccSettings& effective_icc(const RipJobOptions& options) {
  const IccSettings& job = options.job_icc;
  const bool job_sets_any = job.enabled || !job.input_rgb_profile.empty() ||
                            !job.input_cmyk_profile.empty() || !job.output_profile.empty();
  return job_sets_any ? job : options.icc;
}

/// Places the items on their canvas.
PlacedSize place_on_canvas(SheetPlan& plan) {
  const PlacedSize placed = place_items(plan.layout, plan.options);
  plan.pad_in = plan.choke.canvas_pad_in();
  if (plan.pad_in > 0.0f) pad_canvas(plan.layout, plan.pad_in);
  return placed;
}

/// Sizes the sheet on both grids, unless it is missing a size.
void plan_grids(SheetPlan& plan, PlacedSize placed) {
  const RipJobOptions& options = plan.options;
  plan.size = sheet_size(plan.layout, placed, plan.pad_in, options.sheet_width_in);
  if (!(plan.size.width_in > 0.0f)) {
    plan.missing = SheetSide::width;
    return;
  }
  StripPlan& strips = plan.strips;
  strips.src_dpi = options.src_dpi;
  strips.x_dpi = plan.mode.x_dpi;
  strips.y_dpi = plan.mode.y_dpi;
  strips.src_w = source_pixels(plan.size.width_in, options.src_dpi, "sheet width");
  strips.src_h = source_pixels(plan.size.height_in, options.src_dpi, "sheet height");
  if (strips.src_h == 0) {
    plan.missing = SheetSide::height;
    return;
  }
  strips.dev_w = device_pixels(strips.src_w, strips.src_dpi, strips.x_dpi, "width");
  strips.dev_h = device_pixels(strips.src_h, strips.src_dpi, strips.y_dpi, "height");
  strips.strip_rows = options.strip_h_px;
  strips.count = strip_count(strips.src_h, options.strip_h_px);
}

void plan_job_threads(SheetPlan& plan) {
  const RipJobOptions& options = plan.options;
  const std::uint64_t dots = std::uint64_t{plan.strips.dev_w} * plan.strips.dev_h;
  plan.threads = plan_threads(options.performance, RipPerformanceEnv::snapshot());
  plan.parallel_channels = plan.threads.use_parallel_channels(options.parallel_channels_auto, dots,
                                                              options.parallel_channels_min_pixels);
  if (plan.parallel_channels) plan.threads.side_by_side = plan.threads.channel_threads();
}

/// Where the f32 rules of strips and of screening part from the size in the print file, a sheet could only
/// fail at its end.
void require_exact_grid(const StripPlan& strips) {
  const auto require = [](const char* excess, std::uint32_t source, std::uint32_t dots, std::uint32_t found) {
    if (dots == found) return;
    throw std::runtime_error(std::string("StreamRip: the sheet is too ") + excess +
                             " to be screened exactly: " + std::to_string(source) + " source pixels are " +
                             std::to_string(dots) + " dots, but single precision makes them " +
                             std::to_string(found));
  };
  require("long", strips.src_h, strips.dev_h,
          device_row(strips.src_h, strips.src_h, strips.src_dpi, strips.y_dpi));
  const DeviceScale scale(strips.src_dpi, strips.x_dpi, strips.y_dpi);
  require("wide", strips.src_w, strips.dev_w, device_extent(strips.src_w, scale.x));
}

/// A strip's rows are screened and written in so many bands, unless these were very small or large: writing
/// begins early, and a band is a size that memory is cheap for.
constexpr std::size_t kBandsOfStrip = 12;
constexpr std::size_t kLeastBandBytes = 4 << 20, kMostBandBytes = 32 << 20;

std::uint32_t rows_of_band(std::uint32_t strip_rows, std::size_t row_bytes) {
  const std::size_t bytes =
      std::clamp(strip_rows * row_bytes / kBandsOfStrip, kLeastBandBytes, kMostBandBytes);
  return static_cast<std::uint32_t>(
      std::max<std::size_t>(std::min<std::size_t>(bytes / row_bytes, strip_rows), 1));
}

/// Refuses what could not be held, before anything is read or allocated for it.
StripNeeds plan_streaming(SheetPlan& plan) {
  StripPlan& strips = plan.strips;
  require_exact_grid(strips);
  strips.halo = std::max(resampling_halo_rows(strips.src_dpi, strips.y_dpi,
                                              plan.options.color_hard() && plan.options.white_hard()),
                         plan.choke.halo_rows(strips.y_dpi));
  StripNeeds needs;
  needs.src_w = strips.src_w;
  needs.src_rows = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(strips.strip_rows + 2 * std::uint64_t{strips.halo}, strips.src_h));
  needs.dev_w = strips.dev_w;
  needs.dev_rows = device_row(needs.src_rows, strips.src_h, strips.src_dpi, strips.y_dpi);
  needs.device_choke = plan.choke.is_active();
  needs.light_protection = plan.choke.protects_light();
  require_strip_fits(needs);
  return needs;
}

std::uint64_t plan_full_buffer(const SheetPlan& plan) {
  const RipJobOptions& options = plan.options;
  const FullBufferNeeds needs{.src_w = plan.strips.src_w,
                              .src_h = plan.strips.src_h,
                              .dev_w = plan.strips.dev_w,
                              .dev_h = plan.strips.dev_h,
                              .device_choke = plan.choke.is_active(),
                              .light_protection = plan.choke.protects_light(),
                              .parallel_channels = plan.parallel_channels,
                              .color_hard = options.color_hard(),
                              .white_hard = options.white_hard()};
  require_full_buffer_fits(needs);
  return full_buffer_bytes(needs);
}

void plan_path(SheetPlan& plan) {
  const StripPlan& strips = plan.strips;
  plan.streaming = strips.y_dpi >= strips.src_dpi;
  StripNeeds needs;
  if (plan.streaming)
    needs = plan_streaming(plan);
  else
    plan.memory_bytes = plan_full_buffer(plan);
  plan.row_bytes = prt_row_layout(plan.options.head(), strips.dev_w).cycle_len;
  plan.print_bytes = std::uint64_t{plan.row_bytes} * strips.dev_h;
  if (!plan.streaming) return;
  plan.band_rows = rows_of_band(strips.largest().dev_rows, plan.row_bytes);
  plan.memory_bytes = strip_bytes(needs) + std::uint64_t{kBandsInFlight} * plan.band_rows * plan.row_bytes;
}

}  // namespace

SheetPlan plan_sheet(const RipJobOptions& options, SheetLayout layout, const PlanWatcher& reached) {
  SheetPlan plan;
  const auto reach = [&](PlanStage stage) {
    if (reached) reached(stage, plan);
  };
  plan.options = options;
  plan.layout = std::move(layout);
  plan.mode = checked_print_mode(options);
  plan.icc = effective_icc(options);
  plan.choke = plan_choke(options);
  reach(PlanStage::choke);
  const PlacedSize placed = place_on_canvas(plan);
  reach(PlanStage::canvas);
  plan_grids(plan, placed);
  if (plan.missing != SheetSide::none) return plan;
  reach(PlanStage::grids);
  plan_job_threads(plan);
  reach(PlanStage::threads);
  plan_path(plan);
  return plan;
}

}  // namespace nvo
