#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "image/pdf/pdf_page.h"

namespace nvo {

/// White ink recovered from one PDF page. Planes are empty or hold width x height bytes, top row first, and
/// are not empty only if some byte in them is not 0. Pixel (x, y) is pixel (x, y) of the rendered page, on
/// which the page's MediaBox is stretched.
struct SpotWhiteResult {
  std::vector<std::uint8_t> spot_white_coverage;  ///< 0 no white, 255 full white
  std::vector<std::uint8_t>
      process_alpha_coverage;  ///< soft masks of the page's images, the greatest of each
  std::string status;          ///< for the log: what was found, or why nothing was
  PdfPageFacts facts;
};

/// Reads page `page_index` (0-based, in the order of object numbers) of the PDF at `path` and paints what is
/// set in a Separation or DeviceN colorant White into planes of `width` x `height` pixels. Understands a
/// narrow part of PDF: plain objects, Flate streams, straight-edged paths, 8-bit images. Whatever the file
/// holds, the outcome is a status and not an exception; what throws is a failure of the machine. Safe on
/// hostile files, callable from any thread.
SpotWhiteResult extract_spot_white(const std::string& path, std::uint32_t page_index, std::uint32_t width,
                                   std::uint32_t height);

/// The same for a file whose bytes are at hand.
SpotWhiteResult extract_spot_white_from_bytes(std::string_view bytes, std::uint32_t page_index,
                                              std::uint32_t width, std::uint32_t height);

/// Does this part of a PDF, folded to lower case, look as if it named a white or spot colorant? A cheap
/// guess: it colours messages and decides nothing.
bool has_spot_white_candidate(std::string_view lower_case_text);

}  // namespace nvo
