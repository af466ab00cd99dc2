#include "plan/choke_plan.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/checked.h"

namespace nvo {
namespace {

constexpr float kPixelNoise = 0.0001f;  ///< source pixels of f32 noise that widen no pad

/// The adaptive choke's settings, from the job or from the request beside it.
AdaptiveChokeRequest adaptive_choke(const RipJobOptions& options) {
  const bool of_job = options.white_choke_algorithm == WhiteChokeSetting::adaptive;
  if (!of_job && options.adaptive_white_choke) return options;
  return {of_job, options.white_choke_adaptive_min_width_dots,
          options.white_choke_adaptive_protect_light_enabled,
          options.white_choke_adaptive_lightness_threshold};
}

}  // namespace

ChokePlan plan_choke(const RipJobOptions& options) {
  const AdaptiveChokeRequest adaptive = adaptive_choke(options);
  ChokePlan plan;
  plan.white_choke_enabled = options.white_choke_enabled;
  plan.white_choke_amount_px_at_300dpi = options.white_choke_amount_px_at_300dpi;
  plan.white_choke_strategy = WhiteChokeStrategy::production;
  plan.white_choke_algorithm =
      adaptive.adaptive_white_choke ? DeviceChokeAlgorithm::adaptive : DeviceChokeAlgorithm::production;
  plan.white_choke_adaptive_min_width_dots =
      static_cast<std::uint32_t>(WhiteChoke::kMinWidthDots.cut(adaptive.adaptive_white_choke_min_width_dots));
  plan.white_choke_adaptive_protect_light_enabled =
      plan.is_adaptive() && adaptive.adaptive_white_choke_protect_light;
  plan.white_choke_adaptive_lightness_threshold =
      WhiteChoke::kLightness.cut(adaptive.adaptive_white_choke_lightness_threshold);
  plan.src_dpi = options.src_dpi;
  if (plan.is_active())
    plan.runtime_radius_px = static_cast<float>(options.src_dpi) / WhiteChoke::kReferenceDpi *
                             plan.white_choke_amount_px_at_300dpi;
  return plan;
}

float ChokePlan::canvas_pad_in() const {
  if (!(runtime_radius_px > 0.0f)) return 0.0f;
  const float pad_px = std::max(std::ceil(runtime_radius_px - kPixelNoise), 1.0f);
  return pad_px / static_cast<float>(src_dpi);
}

std::uint32_t ChokePlan::halo_rows(std::uint32_t device_y_dpi) const {
  if (!is_active() || src_dpi == 0 || device_y_dpi == 0) return 0;
  const double amount = static_cast<double>(white_choke_amount_px_at_300dpi);
  const double y_dpi = static_cast<double>(device_y_dpi);
  const double min_width = static_cast<double>(std::max(white_choke_adaptive_min_width_dots, 1u));
  const double radius_rows = std::ceil(amount / static_cast<double>(WhiteChoke::kReferenceDpi) * y_dpi + 1.0);
  const double rows = std::ceil((radius_rows + min_width + 4.0) * static_cast<double>(src_dpi) / y_dpi);
  const double halo = std::max(rows + 1.0, 1.0);
  if (!std::isfinite(halo) || halo > static_cast<double>(kMaxU32))
    throw std::runtime_error("StreamRip: adaptive choke halo exceeds uint32 limit");
  return static_cast<std::uint32_t>(halo);
}

}  // namespace nvo
