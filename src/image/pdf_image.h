#pragma once

#include <cstdint>
#include <string>

#include "image/image_format.h"
#include "image/image_types.h"
#include "image/pdf/pdf_page.h"

namespace nvo {

/// PDFs have no resolution of their own: the program rasterises page 0 at this many dots per inch.
inline constexpr float kPdfDpi = 300.0f;

/// Rasterises a page. The samples are RGBA, and White behind them (0 as full white) where the page sets white
/// as a spot colour. Throws "ImageLoader: failed to rasterize PDF ..." when the page cannot be rendered.
LoadedImage load_pdf(const std::string& path, std::uint32_t page_index, float dpi);

/// The image that `load_pdf` makes of a rendered page. Throws when the record's sizes contradict each other.
LoadedImage image_of_pdf_page(const std::string& path, float dpi, PdfRenderResult page);

// The functions of the format: page 0 at `kPdfDpi`.
ImageExtent probe_pdf(const std::string& path);
LoadedImage load_first_pdf_page(const std::string& path);

}  // namespace nvo
