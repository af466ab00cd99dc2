#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/icc_settings.h"
#include "config/job_settings.h"
#include "config/print_modes.h"
#include "config/rip_settings.h"

namespace nvo {

/// All that a job's run needs. Lengths are inches, resolutions dots or pixels per inch.
struct RipJobOptions {
  std::uint32_t strip_h_px = 1024;  ///< strip height in source rows
  std::uint32_t reserved_count = 3;
  std::uint32_t x_dpi = 0, y_dpi = 0, passes = 0;  ///< explicit device resolution
  std::uint32_t src_dpi = 300;                     ///< source grid, both axes
  float sheet_width_in = 0.0f;                     ///< 0 lets the content decide
  bool parallel_channels_auto = true;
  std::uint64_t parallel_channels_min_pixels = 1'000'000;  ///< device pixels of the sheet
  bool adaptive_white_choke = false;
  std::int32_t adaptive_white_choke_min_width_dots = 3;
  bool adaptive_white_choke_protect_light = true;
  float adaptive_white_choke_lightness_threshold = 85.0f;
  RipPerformance performance;
  std::string cache_dir;  ///< explicit folder of the mask cache, UTF-8
  IccSettings icc;
  std::uint32_t device_board = 0, print_head = 0;
  PrintMode print_mode{"", "", 720, 1800, 6, 2};
  IccSettings job_icc;
  std::vector<std::uint32_t> output_channel_map;
  float nesting_gap_in = 0.5f, sheet_width_setting_in = 23.0f, max_length_in = 120.0f;
  float sheet_margin_left_in = 0.0f, sheet_margin_right_in = 0.0f;
  float sheet_margin_top_in = 0.0f, sheet_margin_bottom_in = 0.0f;
  SheetPlacementMode sheet_placement_mode = SheetPlacementMode::align_center;
  WhiteGenerationMode white_generation_mode = WhiteGenerationMode::source_coverage;
  bool white_choke_enabled = true;
  float white_choke_amount_px_at_300dpi = 1.5f;
  WhiteChokeSetting white_choke_algorithm = WhiteChokeSetting::adaptive;
  std::int32_t white_choke_adaptive_min_width_dots = 3;
  bool white_choke_adaptive_protect_light_enabled = true;
  float white_choke_adaptive_lightness_threshold = 85.0f;
  ResamplingMode color_resampling_mode = ResamplingMode::smooth;
  bool color_resampling_linear_light = true;
  ResamplingMode white_resampling_mode = ResamplingMode::smooth;
  bool white_ink_limit_enabled = false;
  float total_ink_budget_pct = 300.0f, max_white_pct = 400.0f, min_white_pct = 10.0f;

  bool keep_existing_output = false;  ///< the job fails where its target stands or appears meanwhile

  HeadConfig head() const { return {device_board, print_head}; }
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
