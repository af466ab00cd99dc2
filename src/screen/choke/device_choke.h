#pragma once

#include <cstdint>

#include "core/plane_view.h"
#include "plan/choke_plan.h"
#include "screen/choke/choke_context.h"

namespace nvo {

/// What the device-domain choke of a strip is computed from: planes of one size on the source grid, which are
/// rows `strip_src_y` and on of planes of `total_src_rows` rows.
struct DeviceChokeInput {
  PlaneView coverage;       ///< largest colour ink; 3 and more counts as colour
  PlaneView exempt_mask;    ///< explicit white, may be null
  PlaneView support_plane;  ///< composed white, null unless adaptive
  PlaneView light_mask;     ///< light areas, may be null
  std::uint32_t strip_src_y = 0, total_src_rows = 0;
};

struct DeviceChokeParams {
  std::uint32_t src_dpi = kDefaultSourceDpi, x_dpi = 720, y_dpi = 1800;
  DeviceChoke choke{};
  std::uint32_t threads = 1;  ///< the result does not depend on it
};

/// Computes the choke masks of a strip, in the memory of `spent`. A null coverage plane or a zero size gives
/// an empty context.
ChokeContext prepare_device_choke(const DeviceChokeInput& input, const DeviceChokeParams& params,
                                  ChokeContext spent = {});

}  // namespace nvo
