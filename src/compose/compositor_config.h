#pragma once

#include <cstdint>

#include "config/print_modes.h"
#include "config/print_settings.h"
#include "core/threads/thread_plan.h"

namespace nvo {

/// What becomes of a strip's white once its items are composed.
struct StripWhite : WhiteInkLimit {
  std::uint32_t white_generation_mode = 0;
};

/// What composition needs to know of a sheet and a job. Lengths are inches.
struct StripCompositorConfig : Resampling, StripWhite {
  float sheet_width_in = 0.0f;  ///< after placement and canvas pad
  float sheet_height_in = 0.0f;
  std::uint32_t src_dpi = kDefaultSourceDpi;  ///< pixels per inch of the strips
  std::uint32_t strip_h_px = 1024;            ///< height of a strip where none is named
  std::uint32_t channel_count = kChannelCount;
  bool source_grid_choke_enabled = false;  ///< no job sets it: white is choked on the device grid
  float white_choke_amount_px_at_300dpi = 0.0f;
  WhiteChokeStrategy white_choke_strategy = WhiteChokeStrategy::production;
  ThreadPlan threads;
};

}  // namespace nvo
