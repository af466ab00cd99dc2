#include "image/image_format.h"

#include <algorithm>

#include "core/text.h"
#include "image/pdf_image.h"
#include "image/pdf_raster_source.h"
#include "image/tiff_image.h"
#include "image/tiff_raster_source.h"
#include "image/wic_image.h"
#include "image/wic_raster_source.h"

namespace nvo {
namespace {

constexpr std::string_view kTiffExtensions[] = {"tif", "tiff"};
constexpr std::string_view kWicExtensions[] = {"png", "jpg", "jpeg", "bmp", "webp"};
constexpr std::string_view kPdfExtensions[] = {"pdf"};
constexpr std::size_t kMinBareNameLength = 4;

constexpr ImageFormat kFormats[] = {
    {ImageSourceKind::tiff, kTiffExtensions, kTiffDefaultDpi, probe_tiff, load_tiff, open_tiff_source,
     weigh_tiff},
    {ImageSourceKind::wic, kWicExtensions, kWicDefaultDpi, probe_wic, load_wic, open_wic_source, weigh_wic},
    {ImageSourceKind::pdf, kPdfExtensions, kPdfDpi, probe_pdf, load_first_pdf_page, open_pdf_source, nullptr},
};

}  // namespace

const ImageFormat* find_image_format(std::string_view extension) {
  for (const ImageFormat& format : kFormats)
    if (std::ranges::find(format.extensions, extension) != format.extensions.end()) return &format;
  return nullptr;
}

const ImageFormat* find_file_format(std::string_view path) {
  if (path.find('.') != path.npos) return find_image_format(lower_extension(path));
  if (path.size() < kMinBareNameLength) return nullptr;
  const ImageFormat* format = find_image_format(ascii_lower(path));
  return format && format->kind == ImageSourceKind::wic ? format : nullptr;
}

}  // namespace nvo
