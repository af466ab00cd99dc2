#include "image/pdf/pdf_page_size.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/checked.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxPixels = 0x3FFF'FFFF'FFFF'FFFF;  // four bytes each still fit 64 bits
constexpr std::uint64_t kMaxRgbaBytes = std::uint64_t{1} << 30;

std::uint32_t pixel_side(const char* side, double length, float dpi, const PdfPageUnit& unit) {
  if (!std::isfinite(length) || length <= 0.0)
    throw std::runtime_error(std::string(unit.module) + ": invalid PDF page " + side + " in " + unit.name);
  const double pixels = std::round(double{dpi} * length / unit.per_inch);
  if (!std::isfinite(pixels) || pixels > double{kMaxU32})
    throw std::runtime_error(std::string(unit.module) + ": requested PDF render " + side +
                             " is too large; lower DPI or use a smaller page");
  return std::max(static_cast<std::uint32_t>(pixels), 1u);
}

void check_render_size(std::uint64_t width, std::uint64_t height) {
  if (width == 0 || height == 0) throw std::runtime_error("PdfRenderer: rendered PDF dimensions are empty");
  const std::uint64_t pixels = width * height;
  if (pixels > kMaxPixels) throw std::runtime_error("PdfRenderer: PDF render buffer size overflow");
  if (pixels * 4 > kMaxRgbaBytes)
    throw std::runtime_error(
        "PdfRenderer: requested PDF render exceeds 1 GiB RGBA buffer; lower DPI or render a smaller page");
}

}  // namespace

PdfPageInfo describe_pdf_page(const PdfRequest& request, std::uint32_t page_count, double width,
                              double height, const PdfPageUnit& unit) {
  PdfPageInfo page;
  page.page_count = page_count;
  page.page_index = request.page_index;
  page.width = pixel_side("width", width, request.dpi, unit);
  page.height = pixel_side("height", height, request.dpi, unit);
  page.dpi_x = page.dpi_y = request.dpi;
  page.width_inches = static_cast<float>(width / unit.per_inch);
  page.height_inches = static_cast<float>(height / unit.per_inch);
  check_render_size(page.width, page.height);
  return page;
}

}  // namespace nvo
