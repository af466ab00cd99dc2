#include "rip/stream_rip.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>

#include "core/env_override.h"
#include "core/large_vector.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/environment.h"
#include "core/scoped_timer.h"
#include "core/text.h"
#include "core/threads/thread_plan.h"
#include "image/image_format.h"
#include "image/image_meta_probe.h"
#include "output/prt_format.h"
#include "plan/performance.h"
#include "plan/sheet_geometry.h"
#include "rip/job_summary.h"
#include "rip/memory_estimate.h"
#include "rip/print_review.h"
#include "rip/sheet_run.h"
#include "screen/device_grid.h"

namespace nvo {
namespace {

constexpr const char* kStrategyOverride = "NVO_WHITE_CHOKE_STRATEGY_DEBUG_OVERRIDE";

const char* name_of(bool value) {
  return value ? "true" : "false";
}
const char* name_of(ResamplingMode mode) {
  return mode == ResamplingMode::hard ? "hard" : "smooth";
}

PrintMode checked_print_mode(const RipJobOptions& options) {
  const PrintMode mode = effective_print_mode(options.head(), options.print_mode,
                                              {options.x_dpi, options.y_dpi, options.passes});
  if (options.src_dpi == 0 || mode.x_dpi == 0 || mode.y_dpi == 0)
    throw std::invalid_argument("StreamRip: src_dpi/x_dpi/y_dpi must be > 0");
  if (options.strip_h_px == 0) throw std::invalid_argument("StreamRip: strip_h_px must be > 0");
  return mode;
}

void log_plan(const RipJobOptions& options, const ChokePlan& choke) {
  log_info("White choke: enabled=", name_of(options.white_choke_enabled), ", strategy=production",
           ", rip_algorithm=", choke.adaptive ? "adaptive" : "production", ", requested_strategy=production",
           ", debug_env_override=false", ", amount_px@300=", options.white_choke_amount_px_at_300dpi,
           ", runtime_radius_px=", choke.runtime_radius_px, ", min_width_dots=", choke.min_width_dots,
           ", light_protection=", name_of(choke.protect_light),
           ", lightness_threshold=", choke.lightness_threshold,
           ", insertion_stage=rip_pre_threshold_device_domain");
  log_info("Resampling: color=", name_of(options.color_resampling_mode),
           ", color_linear_light=", name_of(options.color_resampling_linear_light),
           ", white=", name_of(options.white_resampling_mode));
}

SamplingMode sampling_of(ResamplingMode mode) {
  return mode == ResamplingMode::hard ? SamplingMode::hard : SamplingMode::smooth;
}

RipEngineParams engine_params(const RipJobOptions& options, const PrintMode& mode, const ChokePlan& choke,
                              const RipSettings& rip_settings) {
  RipEngineParams params;
  params.src_dpi = options.src_dpi;
  params.x_dpi = mode.x_dpi;
  params.y_dpi = mode.y_dpi;
  params.n_channels = static_cast<std::int32_t>(kChannelCount);
  params.white_choke_enabled = options.white_choke_enabled;
  params.white_choke_amount_px_at_300dpi = options.white_choke_amount_px_at_300dpi;
  params.white_choke_strategy = WhiteChokeStrategy::production;
  params.white_choke_algorithm =
      choke.adaptive ? DeviceChokeAlgorithm::adaptive : DeviceChokeAlgorithm::production;
  params.white_choke_adaptive_min_width_dots = static_cast<std::uint32_t>(choke.min_width_dots);
  params.white_choke_adaptive_protect_light_enabled = choke.protect_light;
  params.white_choke_adaptive_lightness_threshold = choke.lightness_threshold;
  params.color_resampling = sampling_of(options.color_resampling_mode);
  params.white_resampling = sampling_of(options.white_resampling_mode);
  params.cache_dir = options.cache_dir;
  params.linear_lut = channel_curves(rip_settings);
  return params;
}

StripCompositorConfig compositor_config(const RipJobOptions& options, SheetSize size,
                                        const ThreadPlan& threads) {
  StripCompositorConfig config;
  config.threads = threads;
  config.sheet_width_in = size.width_in;
  config.sheet_height_in = size.height_in;
  config.src_dpi = options.src_dpi;
  config.strip_h_px = options.strip_h_px;
  config.channel_count = kChannelCount;
  config.white_generation_mode = static_cast<std::uint32_t>(options.white_generation_mode);
  config.source_grid_choke_enabled = false;  // white is choked on the device grid
  config.white_choke_amount_px_at_300dpi = options.white_choke_amount_px_at_300dpi;
  config.white_choke_strategy = WhiteChokeStrategy::production;
  config.color_resampling_mode = options.color_resampling_mode;
  config.color_resampling_linear_light = options.color_resampling_linear_light;
  config.white_resampling_mode = options.white_resampling_mode;
  config.white_ink_limit_enabled = options.white_ink_limit_enabled;
  config.total_ink_budget_pct = options.total_ink_budget_pct;
  config.max_white_pct = options.max_white_pct;
  config.min_white_pct = options.min_white_pct;
  return config;
}

const IccSettings& effective_icc(const RipJobOptions& options) {
  const IccSettings& job = options.job_icc;
  const bool job_sets_any = job.enabled || !job.input_rgb_profile.empty() ||
                            !job.input_cmyk_profile.empty() || !job.output_profile.empty();
  return job_sets_any ? job : options.icc;
}

struct SheetGrid {
  std::uint32_t src_w = 0, src_h = 0, dev_w = 0, dev_h = 0;
};

/// Where the f32 rules of strips and of screening part from the size in the print file, a sheet could only
/// fail at its end.
void require_exact_grid(const RipJobOptions& options, const PrintMode& mode, const SheetGrid& grid) {
  const auto require = [](const char* excess, std::uint32_t source, std::uint32_t dots, std::uint32_t found) {
    if (dots == found) return;
    throw std::runtime_error(std::string("StreamRip: the sheet is too ") + excess +
                             " to be screened exactly: " + std::to_string(source) + " source pixels are " +
                             std::to_string(dots) + " dots, but single precision makes them " +
                             std::to_string(found));
  };
  require("long", grid.src_h, grid.dev_h, device_row(grid.src_h, grid.src_h, options.src_dpi, mode.y_dpi));
  const DeviceScale scale(options.src_dpi, mode.x_dpi, mode.y_dpi);
  require("wide", grid.src_w, grid.dev_w, device_extent(grid.src_w, scale.x));
}

/// Refuses what could not be held, before anything is read or allocated for it.
void require_strips_fit(const RipJobOptions& options, const PrintMode& mode, const SheetChoke& choke,
                        const SheetGrid& grid) {
  const std::uint64_t rows = options.strip_h_px + 2 * std::uint64_t{streaming_halo(options, mode, choke)};
  StripNeeds needs;
  needs.src_w = grid.src_w;
  needs.dev_w = grid.dev_w;
  needs.dev_rows = device_row(static_cast<std::uint32_t>(std::min<std::uint64_t>(rows, grid.src_h)),
                              grid.src_h, options.src_dpi, mode.y_dpi);
  needs.device_choke = choke.plan().device_choke;
  require_strip_fits(needs);
}

/// Above this a file that claims more pixels than it can hold would cost the disk, and the printer a blank
/// film.
constexpr std::uint64_t kLargePrintBytes = std::uint64_t{256} << 20;

void require_possible(const std::string& path, std::uint64_t print_bytes) {
  const ImageFormat* format = find_file_format(path);
  if (!format || !format->weigh) return;
  ImageClaim claim;
  try {
    claim = format->weigh(path);
  } catch (const std::exception&) {
    rethrow_machine_failure();
    return;  // a file that can't be opened is left out when the sheet is composed
  }
  if (claim.is_possible()) return;
  throw std::runtime_error("StreamRip: '" + path + "' claims " + std::to_string(claim.claimed_bytes) +
                           " bytes of pixels and can't hold more than " +
                           std::to_string(claim.possible_bytes) + "; no print of " +
                           std::to_string(print_bytes) + " bytes is made of it");
}

/// Refuses files that can't hold what they claim, where the print would be large.
void require_possible_claims(const SheetLayout& sheet, const RipJobOptions& options, std::uint32_t dev_w,
                             std::uint32_t dev_h) {
  const std::uint64_t print_bytes =
      std::uint64_t{prt_row_layout(options.head(), dev_w).cycle_len} * dev_h;  // both have 32 bits
  if (print_bytes <= kLargePrintBytes) return;
  std::unordered_set<std::string> weighed;
  for (const LayoutItem& item : sheet.items)
    if (weighed.insert(item.path).second) require_possible(item.path, print_bytes);
}

void log_streaming(std::uint32_t src_dpi, std::uint32_t y_dpi) {
  if (y_dpi % src_dpi == 0)
    log_info("StreamRip: streaming mode enabled (strip compose -> rip -> write)");
  else
    log_info("StreamRip: streaming mode enabled with fractional Y scale (", src_dpi, "->", y_dpi,
             ", strip compose + halo -> rip -> write)");
}

}  // namespace

void SheetRun::report(int stage, int stage_count, float percent, std::string message,
                      std::uint64_t rows) const {
  if (job.progress) job.progress({stage, stage_count, percent, std::move(message), rows});
}

void SheetRun::throw_if_cancelled() const {
  if (!job.cancel || !job.cancel()) return;
  log_info("StreamRip: cancelled.");
  throw RipCancelledError("RIP cancelled");
}

void SheetRun::require_printed(bool any_drop) const {
  review_print(compositor.item_reports(), any_drop, options.src_dpi);
}

std::uint32_t streaming_halo(const RipJobOptions& options, const PrintMode& mode, const SheetChoke& choke) {
  const bool both_hard = options.color_resampling_mode == ResamplingMode::hard &&
                         options.white_resampling_mode == ResamplingMode::hard;
  return std::max(resampling_halo_rows(options.src_dpi, mode.y_dpi, both_hard), choke.halo_rows());
}

ComposedStrip view_strip(const SheetRun& run, const std::vector<Plane>& planes, const Plane& explicit_white,
                         std::uint32_t src_y, std::uint32_t rows) {
  const auto view = [&](const Plane& plane) {
    const bool whole = plane.size() >= std::size_t{run.src_w} * rows;
    return whole ? PlaneView(plane.data(), run.src_w, rows) : PlaneView();
  };
  ComposedStrip strip{.width = run.src_w,
                      .rows = rows,
                      .src_y = src_y,
                      .total_src_rows = run.src_h,
                      .inks = {},
                      .explicit_white = {}};
  for (std::size_t channel = 0; channel < std::min<std::size_t>(planes.size(), kChannelCount); ++channel)
    strip.inks[channel] = view(planes[channel]);
  strip.explicit_white = view(explicit_white);
  return strip;
}

void StreamRip::rip_single(const std::string& input_path, const std::string& output_path,
                           const RipSettings& rip_settings, float width_in, float height_in) const {
  const ImageProbeInfo image = probe_image(input_path);
  if (image.width == 0 || image.height == 0)
    throw std::runtime_error("StreamRip::rip_single: empty source image");
  const float reference = static_cast<float>(options.src_dpi);
  const float dpi_x = normalize_resolution(image.dpi_x, reference);
  const float dpi_y = normalize_resolution(image.dpi_y > 0.0f ? image.dpi_y : dpi_x, reference);
  if (!(dpi_x > 0.0f) || !(dpi_y > 0.0f))
    throw std::runtime_error("StreamRip::rip_single: invalid source DPI");

  float w = static_cast<float>(image.width) / dpi_x;
  float h = static_cast<float>(image.height) / dpi_y;
  const bool width_given = std::isfinite(width_in) && width_in > 0.0f;
  const bool height_given = std::isfinite(height_in) && height_in > 0.0f;
  if (width_given && height_given) {
    w = width_in;
    h = height_in;
  } else if (width_given) {
    h *= width_in / w;
    w = width_in;
  } else if (height_given) {
    w *= height_in / h;
    h = height_in;
  }

  LayoutItem item;
  item.id = item.name = "single";
  item.path = input_path;
  item.width_in = w;
  item.height_in = h;
  run({{std::move(item)}, h}, output_path, rip_settings);
}

/// What is told once the print file stands. It stands whether or not there is memory to tell of it.
static void report_after_print(const SheetRun& run, bool profiling) try {
  run.report(static_cast<int>(run.strips), static_cast<int>(run.strips), 100.0f, "Done",
             run.profile.streaming ? run.dev_h : 0);
  if (profiling) report_profile(run.profile, run.output_path);
  log_info("StreamRip: complete.");
} catch (const std::bad_alloc&) {
}

void StreamRip::run(SheetLayout sheet, const std::string& output_path,
                    const RipSettings& rip_settings) const {
  const std::uint64_t start = platform::monotonic_nanoseconds();
  const bool profiling = profile_enabled();
  const PrintMode mode = checked_print_mode(options);
  const ChokePlan choke = plan_choke(options);
  SheetChoke sheet_choke(choke, mode.y_dpi);
  if (is_environment_true(kStrategyOverride)) warn_ignored_override(kStrategyOverride);
  log_plan(options, choke);

  const PlacedSize placed = place_items(sheet, options);
  const float pad_in = sheet_choke.canvas_pad_in();
  if (pad_in > 0.0f) {
    pad_canvas(sheet, pad_in);
    log_info("StreamRip: white choke canvas pad applied: ", pad_in, " in");
  }
  const SheetSize size = sheet_size(sheet, placed, pad_in, options.sheet_width_in);
  if (!(size.width_in > 0.0f)) {
    log_warn("StreamRip: empty sheet width, nothing to rip");
    review_empty_sheet(sheet, "width");
    return;
  }
  const std::uint32_t src_w = source_pixels(size.width_in, options.src_dpi, "sheet width");
  const std::uint32_t src_h = source_pixels(size.height_in, options.src_dpi, "sheet height");
  if (src_h == 0) {
    log_warn("StreamRip: empty sheet, nothing to rip");
    review_empty_sheet(sheet, "height");
    return;
  }
  const std::uint32_t dev_w = device_pixels(src_w, options.src_dpi, mode.x_dpi, "width");
  const std::uint32_t dev_h = device_pixels(src_h, options.src_dpi, mode.y_dpi, "height");
  const std::uint32_t strips = strip_count(src_h, options.strip_h_px);
  log_info("source-driven layout dpi selected: ", options.src_dpi);
  log_info("StreamRip: ", src_w, "x", src_h, " px @ ", options.src_dpi, " dpi   ", output_path);
  log_info("StreamRip: physical ", size.width_in, "x", size.height_in, " in -> dev ", dev_w, "x", dev_h,
           " @ ", mode.x_dpi, "x", mode.y_dpi, " dpi, ", mode.passes, "pass");
  log_info("StreamRip: ", strips, " strips x ", options.strip_h_px, " px");

  ThreadPlan threads = plan_threads(options.performance, RipPerformanceEnv::snapshot());
  const bool parallel_channels = threads.use_parallel_channels(
      options.parallel_channels_auto, std::uint64_t{dev_w} * dev_h, options.parallel_channels_min_pixels);
  if (parallel_channels) {
    threads.side_by_side = threads.channel_threads();
    log_info("StreamRip: parallel channel RIP enabled, threads=", threads.channel_threads());
  }
  const bool streaming = mode.y_dpi >= options.src_dpi;
  RipEngineParams params = engine_params(options, mode, choke, rip_settings);
  params.threads = threads;
  if (streaming) {
    const SheetGrid grid{src_w, src_h, dev_w, dev_h};
    require_exact_grid(options, mode, grid);
    require_strips_fit(options, mode, sheet_choke, grid);
  } else {
    require_full_buffer_fits({src_w, src_h, dev_w, dev_h, choke.device_choke, choke.protect_light,
                              parallel_channels, options.color_resampling_mode == ResamplingMode::hard,
                              options.white_resampling_mode == ResamplingMode::hard});
  }

  require_possible_claims(sheet, options, dev_w, dev_h);

  StripCompositor compositor(compositor_config(options, size, threads));
  compositor.set_layout(sheet);
  compositor.set_icc_settings(effective_icc(options));
  compositor.set_profiling(profiling);
  compositor.reset_counters();
  RipEngine engine(std::move(params));
  HosonWriter writer(
      {options.head(), mode, options.output_channel_map, options.keep_existing_output, threads});
  writer.set_timing(profiling);
  std::unique_ptr<ThreadPool> pool;
  if (parallel_channels) {
    pool = make_thread_pool(threads.channel_threads());  // without one the inks go one after another
    engine.ensure_column_taps(src_w, engine.device_width(src_w));
  }

  SheetRun run{*this, options, output_path, mode,   sheet_choke, src_w,      src_h, dev_w,
               dev_h, strips,  compositor,  engine, writer,      pool.get(), {},    {}};
  run.profile.streaming = streaming;
  run.profile.parallel_channels = parallel_channels;
  run.announce = [&] {
    const JobSummary summary{options, mode, choke, effective_icc(options), sheet, size};
    log_job_summary(summary,
                    sheet.items.size() == 1 ? compositor.item_meta(sheet.items.front()) : std::nullopt);
  };
  if (streaming) {
    log_streaming(options.src_dpi, mode.y_dpi);
    run_streaming(run);
  } else {
    log_warn("StreamRip: Y scale ", options.src_dpi, "->", mode.y_dpi,
             ") is using compatibility full-buffer path");
    run_full_buffer(run);
  }
  if (profiling) {
    StreamRipProfile& profile = run.profile;
    profile.src_width_px = src_w;
    profile.src_height_px = src_h;
    profile.dev_width_px = dev_w;
    profile.dev_height_px = dev_h;
    profile.strip_count = strips;
    profile.compositor = compositor.read_counters();
    profile.writer_counters = writer.counters();
    profile.total = platform::monotonic_nanoseconds() - start;
  }
  report_after_print(run, profiling);
}

}  // namespace nvo
