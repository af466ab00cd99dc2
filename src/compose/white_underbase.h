#pragma once

#include <cstdint>
#include <string>

#include "compose/strip_buffer.h"
#include "config/job_settings.h"
#include "image/image_types.h"
#include "image/raster_source.h"

namespace nvo {

/// Percentages count one full ink as 100.
struct WhiteUnderbaseParams {
  std::uint32_t white_generation_mode = 0;
  bool choke_enabled = false;
  float choke_amount_px_at_300dpi = 0.0f;
  WhiteChokeStrategy choke_strategy = WhiteChokeStrategy::production;
  bool white_ink_limit_enabled = false;
  float total_ink_budget_pct = 300.0f;
  float max_white_pct = 400.0f;  ///< percent of white at a white byte of 255
  float min_white_pct = 10.0f;   ///< percent that a pixel keeps in any case, scaled by its coverage
};

/// Limits the white of a finished strip by the total ink of each pixel and spreads colour on the source grid
/// where that is asked for.
void apply_white_underbase(StripBuffer& strip, std::uint32_t dpi, const WhiteUnderbaseParams& params);

/// Whether every coverage byte of an image is near 0 or near 255, so that it may be scaled hard. False for an
/// image without pixels.
bool coverage_is_binary(const LoadedImage& image);

/// The same for a row source, read 256 rows at a time; a failed read answers false and warns. `path` is for
/// the log.
bool coverage_is_binary(RasterSource& source, const std::string& path);

}  // namespace nvo
