#include "image/image_format.h"

#include <algorithm>
#include <utility>

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

/// Formats that are decoded on the calling thread alone.
template <LoadedImage (*load)(const std::string&)>
LoadedImage load_alone(const std::string& path, const ThreadPlan&) {
  return load(path);
}
template <std::shared_ptr<RasterSource> (*open)(const std::string&, SharedFailures)>
std::shared_ptr<RasterSource> open_alone(const std::string& path, SharedFailures failures,
                                         const ThreadPlan&) {
  return open(path, std::move(failures));
}

constexpr ImageFormat kFormats[] = {
    {.kind = ImageSourceKind::tiff,
     .traits = {.name = "TIFF"},
     .extensions = kTiffExtensions,
     .default_dpi = kTiffDefaultDpi,
     .probe = probe_tiff,
     .load = load_tiff,
     .open_source = open_tiff_source,
     .open_stream = nullptr,
     .weigh = weigh_tiff},
    {.kind = ImageSourceKind::wic,
     .traits = {.name = "WIC", .decodes_in_order = true, .allows_bare_names = true},
     .extensions = kWicExtensions,
     .default_dpi = kWicDefaultDpi,
     .probe = probe_wic,
     .load = load_alone<load_wic>,
     .open_source = open_alone<open_wic_source>,
     .open_stream = open_wic_stream,
     .weigh = weigh_wic},
    {.kind = ImageSourceKind::pdf,
     .traits = {.name = "PDF", .is_page = true, .keeps_rows = true},
     .extensions = kPdfExtensions,
     .default_dpi = kPdfDpi,
     .probe = probe_pdf,
     .load = load_alone<load_first_pdf_page>,
     .open_source = open_alone<open_pdf_source>,
     .open_stream = nullptr,
     .weigh = nullptr},
};

}  // namespace

const ImageFormat* find_image_format(std::string_view extension) {
  for (const ImageFormat& format : kFormats)
    if (std::ranges::find(format.extensions, extension) != format.extensions.end()) return &format;
  return nullptr;
}

const FormatTraits& format_traits(ImageSourceKind kind) {
  static constexpr FormatTraits kUnknown;
  for (const ImageFormat& format : kFormats)
    if (format.kind == kind) return format.traits;
  return kUnknown;
}

const ImageFormat* find_file_format(std::string_view path) {
  if (path.find('.') != path.npos) return find_image_format(lower_extension(path));
  if (path.size() < kMinBareNameLength) return nullptr;
  const ImageFormat* format = find_image_format(ascii_lower(path));
  return format && format->traits.allows_bare_names ? format : nullptr;
}

}  // namespace nvo
