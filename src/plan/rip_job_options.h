#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/icc_settings.h"
#include "config/print_modes.h"
#include "config/print_settings.h"
#include "config/rip_settings.h"

namespace nvo {

/// The adaptive choke as a caller may ask for it beside `WhiteChoke`: where the switch is set and the job's
/// algorithm isn't adaptive, these values hold instead of the job's.
struct AdaptiveChokeRequest {
  bool adaptive_white_choke = false;
  std::int32_t adaptive_white_choke_min_width_dots = WhiteChoke::kDefaultMinWidthDots;
  bool adaptive_white_choke_protect_light = true;
  float adaptive_white_choke_lightness_threshold = WhiteChoke::kDefaultLightness;
};

/// All that a job's run needs. Lengths are inches, resolutions dots or pixels per inch. Of what a caller may
/// give twice, `plan_sheet` says which holds: the explicit resolution beside `print_mode` only where that has
/// no id, `job_icc` before `icc` where it sets anything.
struct RipJobOptions : PrintSettings, HeadConfig, ExplicitResolution, AdaptiveChokeRequest {
  std::uint32_t strip_h_px = 1024;  ///< strip height in source rows
  std::uint32_t reserved_count = 3;
  std::uint32_t src_dpi = kDefaultSourceDpi;  ///< source grid, both axes
  float sheet_width_in = 0.0f;                ///< 0 lets the content decide
  bool parallel_channels_auto = true;
  std::uint64_t parallel_channels_min_pixels = 1'000'000;  ///< device pixels of the sheet
  RipPerformance performance;
  std::string cache_dir;  ///< explicit folder of the mask cache, UTF-8
  IccSettings job_icc;
  // For front ends that place many images.
  float nesting_gap_in = RipSettings::kDefaultNestingGapIn;
  float sheet_width_setting_in = RipSettings::kDefaultSheetWidthIn;
  float max_length_in = RipSettings::kDefaultMaxLengthIn;

  bool always_bottom_up = false;  ///< strips are worked on from the bottom, also where art decodes top-down
  bool keep_existing_output = false;  ///< the job fails where its target stands or appears meanwhile

  const HeadConfig& head() const { return *this; }
};

/// One placed image; position and size on the sheet in inches, top left corner first.
struct LayoutItem {
  std::string id;
  std::string name;
  std::string path;  ///< UTF-8
  float x_in = 0.0f, y_in = 0.0f;
  float width_in = 0.0f, height_in = 0.0f;
  bool rotated = false;  ///< turned by 90 degrees clockwise
};

struct SheetLayout {
  std::vector<LayoutItem> items;
  float height_in = 0.0f;
};

}  // namespace nvo
