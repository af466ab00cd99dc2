#pragma once

#include <cstdint>

#include "plan/rip_job_options.h"

namespace nvo {

enum class DeviceChokeAlgorithm : std::uint8_t { production = 0, adaptive = 1 };

/// The settings of the choke on the device grid.
struct DeviceChoke {
  bool white_choke_enabled = false;
  float white_choke_amount_px_at_300dpi = 0.0f;
  WhiteChokeStrategy white_choke_strategy = WhiteChokeStrategy::baseline;
  DeviceChokeAlgorithm white_choke_algorithm = DeviceChokeAlgorithm::production;
  std::uint32_t white_choke_adaptive_min_width_dots = WhiteChoke::kDefaultMinWidthDots;
  bool white_choke_adaptive_protect_light_enabled = true;
  float white_choke_adaptive_lightness_threshold = WhiteChoke::kDefaultLightness;

  bool is_active() const { return white_choke_enabled && white_choke_amount_px_at_300dpi > 0.0f; }
  bool is_adaptive() const { return white_choke_algorithm == DeviceChokeAlgorithm::adaptive; }
};

/// The white choke of a run, settled once from the options, and how far it reaches on the source grid. Its
/// minimum width and threshold are within their limits, and light areas are protected only where it is
/// adaptive.
struct ChokePlan : DeviceChoke {
  std::uint32_t src_dpi = kDefaultSourceDpi;
  float runtime_radius_px = 0.0f;  ///< source pixels; 0 where no choke is active

  bool protects_light() const { return white_choke_adaptive_protect_light_enabled; }

  /// Inches by which the canvas grows on each side, so that colour can grow beyond the art: whole pixels.
  float canvas_pad_in() const;

  /// Source rows above and below a strip that the choke of its rows may depend on. Throws above 32 bits.
  std::uint32_t halo_rows(std::uint32_t y_dpi) const;
};

ChokePlan plan_choke(const RipJobOptions& options);

}  // namespace nvo
