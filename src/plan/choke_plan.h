#pragma once

#include <cstdint>

#include "plan/rip_job_options.h"

namespace nvo {

/// The white choke as a run uses it, derived once from the options, and how far it reaches on the source
/// grid.
struct ChokePlan {
  bool device_choke = false;  ///< the device-domain choke is active
  bool adaptive = false;
  std::int32_t min_width_dots = 1;  ///< 1..16
  bool protect_light = false;       ///< only where adaptive
  float lightness_threshold = 85.0f;
  float amount_px_at_300dpi = 0.0f;
  std::uint32_t src_dpi = 300;
  float runtime_radius_px = 0.0f;  ///< source pixels; 0 where no choke is active

  /// Inches by which the canvas grows on each side, so that colour can grow beyond the art: whole pixels.
  float canvas_pad_in() const;

  /// Source rows above and below a strip that the choke of its rows may depend on. Throws above 32 bits.
  std::uint32_t halo_rows(std::uint32_t y_dpi) const;
};

ChokePlan plan_choke(const RipJobOptions& options);

}  // namespace nvo
