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

/// What the file's own text says of the page that its white is read from. The renderer may go by other boxes
/// and by another order of pages; from these it can be told where the two differ.
struct PdfPageFacts {
  bool has_page = false;   ///< the page was found, and the next five are its own
  double box_width = 0.0;  ///< of the MediaBox on which white and masks are laid, in points
  double box_height = 0.0;
  int rotation = 0;                ///< degrees, 0 to 359
  double user_unit = 1.0;          ///< 1/72 inch each
  bool is_other_page = false;      ///< the page tree, where it can be read, begins with another one
  bool is_page_of_tree = false;    ///< the page tree begins with this one
  std::uint32_t page_objects = 0;  ///< pages in the order of object numbers
  bool white_is_guess = false;     ///< white was read from the only spot, whose name doesn't mean it
  bool hides_candidate = false;    ///< a compressed list of objects names a white or spot; those aren't read
  std::uint32_t closed_lists = 0;  ///< compressed lists of objects that can't even be looked into
};

/// A page and its white.
struct PdfRenderResult : PdfPageInfo {
  std::vector<std::uint8_t> rgba;                 ///< width x height x 4 bytes, straight alpha, top row first
  std::vector<std::uint8_t> spot_white_coverage;  ///< empty, or width x height; see `SpotWhiteResult`
  std::vector<std::uint8_t> process_alpha_coverage;  ///< empty, or width x height; see `SpotWhiteResult`
  bool has_alpha = false;                            ///< some alpha byte of `rgba` is below 255
  bool has_spot_white = false;                       ///< `spot_white_coverage` is not empty
  std::string spot_status;                           ///< what the extractor says of its outcome
  PdfPageFacts facts;
};

}  // namespace nvo
