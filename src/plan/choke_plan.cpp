#include "plan/choke_plan.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/checked.h"

namespace nvo {
namespace {

constexpr float kReferenceDpi = 300.0f;  ///< choke amounts are pixels at this resolution
constexpr float kPixelNoise = 0.0001f;   ///< source pixels of f32 noise that widen no pad
constexpr std::int32_t kMinWidthLow = 1, kMinWidthHigh = 16;
constexpr float kLightnessHigh = 100.0f;

}  // namespace

ChokePlan plan_choke(const RipJobOptions& options) {
  const bool by_algorithm = options.white_choke_algorithm == WhiteChokeSetting::adaptive;
  ChokePlan plan;
  plan.amount_px_at_300dpi = options.white_choke_amount_px_at_300dpi;
  plan.src_dpi = options.src_dpi;
  plan.device_choke = options.white_choke_enabled && plan.amount_px_at_300dpi > 0.0f;
  plan.adaptive = by_algorithm || options.adaptive_white_choke;
  plan.min_width_dots = std::clamp(by_algorithm ? options.white_choke_adaptive_min_width_dots
                                                : options.adaptive_white_choke_min_width_dots,
                                   kMinWidthLow, kMinWidthHigh);
  plan.protect_light = plan.adaptive && (by_algorithm ? options.white_choke_adaptive_protect_light_enabled
                                                      : options.adaptive_white_choke_protect_light);
  plan.lightness_threshold = std::clamp(by_algorithm ? options.white_choke_adaptive_lightness_threshold
                                                     : options.adaptive_white_choke_lightness_threshold,
                                        0.0f, kLightnessHigh);
  if (plan.device_choke)
    plan.runtime_radius_px = static_cast<float>(options.src_dpi) / kReferenceDpi * plan.amount_px_at_300dpi;
  return plan;
}

float ChokePlan::canvas_pad_in() const {
  if (!(runtime_radius_px > 0.0f)) return 0.0f;
  const float pad_px = std::max(std::ceil(runtime_radius_px - kPixelNoise), 1.0f);
  return pad_px / static_cast<float>(src_dpi);
}

std::uint32_t ChokePlan::halo_rows(std::uint32_t device_y_dpi) const {
  if (!device_choke || src_dpi == 0 || device_y_dpi == 0) return 0;
  const double amount = static_cast<double>(amount_px_at_300dpi);
  const double y_dpi = static_cast<double>(device_y_dpi);
  const double min_width = static_cast<double>(std::max(min_width_dots, 1));
  const double radius_rows = std::ceil(amount / static_cast<double>(kReferenceDpi) * y_dpi + 1.0);
  const double rows = std::ceil((radius_rows + min_width + 4.0) * static_cast<double>(src_dpi) / y_dpi);
  const double halo = std::max(rows + 1.0, 1.0);
  if (!std::isfinite(halo) || halo > static_cast<double>(kMaxU32))
    throw std::runtime_error("StreamRip: adaptive choke halo exceeds uint32 limit");
  return static_cast<std::uint32_t>(halo);
}

}  // namespace nvo
