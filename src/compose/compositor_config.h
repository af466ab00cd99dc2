#pragma once

#include <cstdint>

#include "config/job_settings.h"
#include "core/threads/thread_plan.h"

namespace nvo {

/// What composition needs to know of a sheet and a job. Lengths are inches, ink limits percent of one full
/// ink.
struct StripCompositorConfig {
  float sheet_width_in = 0.0f;  ///< after placement and canvas pad
  float sheet_height_in = 0.0f;
  std::uint32_t src_dpi = 300;      ///< pixels per inch of the strips
  std::uint32_t strip_h_px = 1024;  ///< height of a strip where none is named
  std::uint32_t channel_count = 5;
  std::uint32_t white_generation_mode = 0;
  bool source_grid_choke_enabled = false;
  float white_choke_amount_px_at_300dpi = 0.0f;
  WhiteChokeStrategy white_choke_strategy = WhiteChokeStrategy::production;
  ResamplingMode color_resampling_mode = ResamplingMode::smooth;
  bool color_resampling_linear_light = true;
  ResamplingMode white_resampling_mode = ResamplingMode::smooth;
  bool white_ink_limit_enabled = false;
  float total_ink_budget_pct = 300.0f;
  float max_white_pct = 400.0f;
  float min_white_pct = 10.0f;
  ThreadPlan threads;
};

}  // namespace nvo
