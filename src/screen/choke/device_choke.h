#pragma once

#include <cstdint>

#include "screen/choke/choke_context.h"

namespace nvo {

/// What the device-domain choke is computed from. Planes are on the source grid, `src_w` x `strip_rows`
/// bytes; the strip is rows `strip_src_y` .. of a plane of `total_src_rows` rows.
struct DeviceChokeInput {
  const std::uint8_t* coverage = nullptr;       ///< largest colour ink; 3 and more counts as colour
  const std::uint8_t* exempt_mask = nullptr;    ///< explicit white, may be null
  const std::uint8_t* support_plane = nullptr;  ///< composed white, null unless adaptive
  const std::uint8_t* light_mask = nullptr;     ///< light areas, may be null
  std::uint32_t src_w = 0, strip_rows = 0, strip_src_y = 0, total_src_rows = 0;
};

struct DeviceChokeParams {
  std::uint32_t src_dpi = 300, x_dpi = 720, y_dpi = 1800;
  float amount_px_at_300dpi = 0.0f;
  bool adaptive = false;  ///< algorithm is adaptive
  std::uint32_t min_width_dots = 3;
  bool protect_light = true;
  float lightness_threshold = 85.0f;
  std::uint32_t threads = 1;  ///< the result does not depend on it
};

/// Computes the choke masks of a strip, in the memory of `spent`. A null coverage plane or a zero size gives
/// an empty context.
ChokeContext prepare_device_choke(const DeviceChokeInput& input, const DeviceChokeParams& params,
                                  ChokeContext spent = {});

}  // namespace nvo
