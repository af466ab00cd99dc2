#pragma once

#include <cstdint>

#include "image/pdf/pdf_backend.h"

namespace nvo {

/// The unit in which a back-end states the size of a page, and the words of its complaints.
struct PdfPageUnit {
  const char* module;
  const char* name;
  double per_inch;
};
inline constexpr PdfPageUnit kPdfPoints{"PdfRenderer(PDFium)", "points", 72.0};
inline constexpr PdfPageUnit kPdfDips{"PdfRenderer", "DIPs", 96.0};

/// Fills everything but `has_spot_candidate` from a page's size in `unit`. Throws when the size makes no
/// sense, or when the page's pixels would exceed 1 GiB.
PdfPageInfo describe_pdf_page(const PdfRequest& request, std::uint32_t page_count, double width,
                              double height, const PdfPageUnit& unit);

/// Bytes of one row of RGBA pixels.
inline std::size_t rgba_stride(const PdfPageInfo& page) {
  return std::size_t{page.width} * 4;
}

/// Bytes of the page's RGBA pixels; `describe_pdf_page` has seen to it that they fit.
inline std::size_t rgba_bytes(const PdfPageInfo& page) {
  return rgba_stride(page) * page.height;
}

}  // namespace nvo
