#pragma once

#include <cstdint>
#include <vector>

#include "config/icc_settings.h"
#include "config/limits.h"
#include "config/print_modes.h"

// What a print depends on, in records that travel whole from the settings file to the stage that works with
// them. A record that holds others hands each on by `hand_over`, so that a field of theirs can't be left
// behind. Lengths are inches, ink amounts percent (100 is one full ink).
namespace nvo {

/// Pixels to the inch of the source grid, unless the art is finer or a caller says otherwise.
inline constexpr std::uint32_t kDefaultSourceDpi = 300;

enum class SheetPlacementMode : std::uint32_t { align_left = 0, align_center = 1, align_right = 2 };
enum class WhiteGenerationMode : std::uint32_t { source_coverage = 0 };
enum class ResamplingMode : std::uint32_t { smooth = 0, hard = 1 };
/// Choice of the white choke as a job states it; every value but `adaptive` prints as `production`.
enum class WhiteChokeSetting : std::uint32_t {
  baseline = 0,
  legacy_same_grid_distance_mask = 1,
  production = 2,
  adaptive = 3
};

/// Where white is pulled in behind colour: the first two spread colour on the source grid, `production`
/// leaves it to the device grid.
enum class WhiteChokeStrategy : std::uint8_t {
  baseline = 0,
  legacy_same_grid_distance_mask = 1,
  production = 2
};

/// The white choke that a job asks for. The device grid's form of it is `DeviceChoke`.
struct WhiteChoke {
  static constexpr float kReferenceDpi = 300.0f;  ///< amounts are pixels at this resolution
  static constexpr Limits kAmountPx{0.0, 2.5};
  static constexpr Limits kMinWidthDots{1.0, 16.0};
  static constexpr Limits kLightness{0.0, 100.0};  ///< CIE L*
  static constexpr std::int32_t kDefaultMinWidthDots = 3;
  static constexpr float kDefaultLightness = 85.0f;

  bool white_choke_enabled = true;
  float white_choke_amount_px_at_300dpi = 1.5f;
  WhiteChokeSetting white_choke_algorithm = WhiteChokeSetting::adaptive;
  std::int32_t white_choke_adaptive_min_width_dots = kDefaultMinWidthDots;
  bool white_choke_adaptive_protect_light_enabled = true;
  float white_choke_adaptive_lightness_threshold = kDefaultLightness;
};

/// How art is brought to the source grid, and that to the device grid.
struct Resampling {
  ResamplingMode color_resampling_mode = ResamplingMode::smooth;
  bool color_resampling_linear_light = true;  ///< smooth colour of RGB art is mixed as light
  ResamplingMode white_resampling_mode = ResamplingMode::smooth;

  bool color_hard() const { return color_resampling_mode == ResamplingMode::hard; }
  bool white_hard() const { return white_resampling_mode == ResamplingMode::hard; }
};

/// The limit of white by the total ink of a pixel.
struct WhiteInkLimit {
  static constexpr Limits kPercent{};

  bool white_ink_limit_enabled = false;
  float total_ink_budget_pct = 300.0f;
  float max_white_pct = 400.0f;  ///< percent of white at a white byte of 255
  float min_white_pct = 10.0f;   ///< percent that a pixel keeps in any case, scaled by its coverage
};

/// Film that stays bare around the art on a sheet of configured width.
struct SheetMargins {
  static constexpr Limits kMarginIn{};

  float sheet_margin_left_in = 0.0f;
  float sheet_margin_right_in = 0.0f;
  float sheet_margin_top_in = 0.0f;
  float sheet_margin_bottom_in = 0.0f;
};

/// All that a job's settings and its options have in common.
struct PrintSettings : WhiteChoke, Resampling, WhiteInkLimit, SheetMargins {
  PrintMode print_mode{"", "", 720, 1800, 6, 2};
  IccSettings icc;
  std::vector<std::uint32_t> output_channel_map;  ///< empty: the head's default
  SheetPlacementMode sheet_placement_mode = SheetPlacementMode::align_center;
  WhiteGenerationMode white_generation_mode = WhiteGenerationMode::source_coverage;
};

/// Hands a whole record from one holder to another.
template <class Record>
void hand_over(const Record& from, Record& to) {
  to = from;
}

}  // namespace nvo
