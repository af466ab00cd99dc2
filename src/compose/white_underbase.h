#pragma once

#include <cstdint>
#include <string>

#include "compose/compositor_config.h"
#include "compose/strip_buffer.h"
#include "image/image_types.h"
#include "image/raster_source.h"

namespace nvo {

struct WhiteUnderbaseParams : StripWhite {
  bool choke_enabled = false;  ///< on the source grid
  float choke_amount_px_at_300dpi = 0.0f;
  WhiteChokeStrategy choke_strategy = WhiteChokeStrategy::production;
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
