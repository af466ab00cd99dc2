#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "compose/strip_buffer.h"
#include "config/print_settings.h"

// The older way to choke white: colour spreads into bare pixels of a strip on the source grid. No job comes
// here: jobs choke on the device grid (screen/choke), and StreamRip leaves the compositor's switch
// `source_grid_choke_enabled` off. A caller that sets up a StripCompositor itself may turn it on, to print as
// before the device grid was choked or to compare.
namespace nvo {

/// Radius of the choke in source pixels, and rounded up to whole ones; 0 for none.
float choke_radius_runtime(std::uint32_t dpi, float amount_px_at_300dpi);
std::uint32_t choke_radius_px(float radius);

/// The token of a strategy for log lines.
const char* choke_strategy_name(WhiteChokeStrategy strategy);
/// Lower case, without control characters, blanks, `_`, `-` and `.`.
std::string normalise_strategy_token(std::string_view text);
WhiteChokeStrategy parse_choke_strategy(std::string_view text, WhiteChokeStrategy fallback);
/// `production`, unless `env_enabled` lets the environment name another.
WhiteChokeStrategy choke_strategy_from_environment(bool env_enabled);

/// 255 where a pixel without explicit white has an ink above `threshold`.
std::vector<std::uint8_t> build_ink_mask(const StripBuffer& strip, std::uint8_t threshold);

/// Spreads colour outward into unprinted pixels next to ink; white stays. The masks (may be null) receive the
/// inked pixels before and after.
void apply_source_grid_choke(StripBuffer& strip, std::uint32_t dpi, float amount_px_at_300dpi,
                             WhiteChokeStrategy strategy, std::vector<std::uint8_t>* mask_before,
                             std::vector<std::uint8_t>* mask_after);

}  // namespace nvo
