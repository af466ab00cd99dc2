#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nvo {

/// What is known of a page without its pixels.
struct PdfPageInfo {
  std::uint32_t page_count = 0, page_index = 0;
  std::uint32_t width = 0, height = 0;  ///< pixels at the requested resolution
  float dpi_x = 0.0f, dpi_y = 0.0f;     ///< both as requested
  float width_inches = 0.0f, height_inches = 0.0f;
  bool has_spot_candidate = false;  ///< the file's bytes look as if it named a white or spot
};

/// A page and its white.
struct PdfRenderResult : PdfPageInfo {
  std::vector<std::uint8_t> rgba;                 ///< width x height x 4 bytes, straight alpha, top row first
  std::vector<std::uint8_t> spot_white_coverage;  ///< empty, or width x height; see `SpotWhiteResult`
  std::vector<std::uint8_t> process_alpha_coverage;  ///< empty, or width x height; see `SpotWhiteResult`
  bool has_alpha = false;                            ///< some alpha byte of `rgba` is below 255
  bool has_spot_white = false;                       ///< `spot_white_coverage` is not empty
  std::string spot_status;                           ///< what the extractor says of its outcome
};

}  // namespace nvo
