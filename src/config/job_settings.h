#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/icc_settings.h"
#include "config/print_modes.h"
#include "config/rip_settings.h"

namespace nvo {

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

/// What a print job is. Lengths are inches, ink amounts percent (100 is one full ink).
struct JobSettings {
  DeviceBoard device_board = DeviceBoard::hoson;
  PrintHead print_head = PrintHead::i3200;
  PrintMode print_mode;
  IccSettings icc;
  std::vector<std::uint32_t> output_channel_map;
  float repeated_file_gap_in = 0.5f;
  float sheet_width_in = 23.0f;
  float max_length_in = 120.0f;
  float sheet_margin_left_in = 0.0f;
  float sheet_margin_right_in = 0.0f;
  float sheet_margin_top_in = 0.0f;
  float sheet_margin_bottom_in = 0.0f;
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
  float total_ink_budget_pct = 300.0f;
  float max_white_pct = 400.0f;
  float min_white_pct = 10.0f;

  HeadConfig head() const {
    return {static_cast<std::uint32_t>(device_board), static_cast<std::uint32_t>(print_head)};
  }
};

/// The built-in values with gap, widths and mode taken from the installation's settings.
JobSettings default_job_settings(const RipSettings& rip_settings, const IccSettings& icc_settings);

/// `job_settings.json` beside the main settings file.
std::string job_settings_path();

/// Reads the job file over defaults from the installation's settings. Never throws for bad data: a file that
/// is not there gives the defaults silently, an unreadable one the defaults and an ERROR line, and a bad
/// value falls back key by key. What is not taken as it stands there WARNs. Throws where the machine has
/// failed.
JobSettings load_job_settings(const RipSettings& rip_settings);
JobSettings load_job_settings(const RipSettings& rip_settings, const std::string& path);

}  // namespace nvo
