#include "rip/stream_rip.h"

#include <cmath>
#include <string>
#include <unordered_set>
#include <utility>

#include "core/env_override.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/clock.h"
#include "image/image_format.h"
#include "image/image_meta_probe.h"
#include "rip/print_review.h"
#include "rip/sheet_plan.h"
#include "rip/sheet_run.h"
#include "rip/strip_order.h"

namespace nvo {
namespace {

constexpr const char* kStrategyOverride = "NVO_WHITE_CHOKE_STRATEGY_DEBUG_OVERRIDE";

const char* name_of(bool value) {
  return value ? "true" : "false";
}
const char* name_of(ResamplingMode mode) {
  return mode == ResamplingMode::hard ? "hard" : "smooth";
}

void log_choke(const SheetPlan& plan) {
  const RipJobOptions& options = plan.options;
  const ChokePlan& choke = plan.choke;
  if (is_environment_true(kStrategyOverride)) warn_ignored_override(kStrategyOverride);
  log_info("White choke: enabled=", name_of(choke.white_choke_enabled), ", strategy=production",
           ", rip_algorithm=", choke.is_adaptive() ? "adaptive" : "production",
           ", requested_strategy=production", ", debug_env_override=false",
           ", amount_px@300=", choke.white_choke_amount_px_at_300dpi,
           ", runtime_radius_px=", choke.runtime_radius_px,
           ", min_width_dots=", choke.white_choke_adaptive_min_width_dots,
           ", light_protection=", name_of(choke.protects_light()),
           ", lightness_threshold=", choke.white_choke_adaptive_lightness_threshold,
           ", insertion_stage=rip_pre_threshold_device_domain");
  log_info("Resampling: color=", name_of(options.color_resampling_mode),
           ", color_linear_light=", name_of(options.color_resampling_linear_light),
           ", white=", name_of(options.white_resampling_mode));
}

void log_grids(const SheetPlan& plan, const std::string& output_path) {
  const StripPlan& strips = plan.strips;
  log_info("source-driven layout dpi selected: ", strips.src_dpi);
  log_info("StreamRip: ", strips.src_w, "x", strips.src_h, " px @ ", strips.src_dpi, " dpi   ", output_path);
  log_info("StreamRip: physical ", plan.size.width_in, "x", plan.size.height_in, " in -> dev ", strips.dev_w,
           "x", strips.dev_h, " @ ", strips.x_dpi, "x", strips.y_dpi, " dpi, ", plan.mode.passes, "pass");
  log_info("StreamRip: ", strips.count, " strips x ", strips.strip_rows, " px");
}

void log_stage(PlanStage stage, const SheetPlan& plan, const std::string& output_path) {
  switch (stage) {
    case PlanStage::choke:
      return log_choke(plan);
    case PlanStage::canvas:
      if (plan.pad_in > 0.0f) log_info("StreamRip: white choke canvas pad applied: ", plan.pad_in, " in");
      return;
    case PlanStage::grids:
      return log_grids(plan, output_path);
    case PlanStage::threads:
      if (plan.parallel_channels)
        log_info("StreamRip: parallel channel RIP enabled, threads=", plan.threads.channel_threads());
      return;
  }
}

void warn_of_empty_sheet(const SheetPlan& plan) {
  const bool no_width = plan.missing == SheetSide::width;
  log_warn("StreamRip: empty sheet", no_width ? " width" : "", ", nothing to rip");
  review_empty_sheet(plan.layout, no_width ? "width" : "height");
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
void require_possible_claims(const SheetPlan& plan) {
  if (plan.print_bytes <= kLargePrintBytes) return;
  std::unordered_set<std::string> weighed;
  for (const LayoutItem& item : plan.layout.items)
    if (weighed.insert(item.path).second) require_possible(item.path, plan.print_bytes);
}

}  // namespace

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

void StreamRip::run(SheetLayout sheet, const std::string& output_path,
                    const RipSettings& rip_settings) const {
  const std::uint64_t start = platform::monotonic_nanoseconds();
  SheetPlan plan =
      plan_sheet(options, std::move(sheet), [&](PlanStage stage, const SheetPlan& planned_so_far) {
        log_stage(stage, planned_so_far, output_path);
      });
  if (plan.missing != SheetSide::none) return warn_of_empty_sheet(plan);
  require_possible_claims(plan);
  plan.order = choose_strip_order(plan);
  SheetRun(*this, plan, rip_settings, output_path).print(start);
}

}  // namespace nvo
