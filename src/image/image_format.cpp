#include "image/image_format.h"

#include <algorithm>

#include "image/tiff_image.h"
#include "image/tiff_raster_source.h"

namespace nvo {
namespace {

constexpr std::string_view kTiffExtensions[] = {"tif", "tiff"};

constexpr ImageFormat kFormats[] = {
    {ImageSourceKind::tiff, kTiffExtensions, kTiffDefaultDpi, probe_tiff, load_tiff, open_tiff_source},
};

}  // namespace

const ImageFormat* find_image_format(std::string_view extension) {
  for (const ImageFormat& format : kFormats)
    if (std::ranges::find(format.extensions, extension) != format.extensions.end()) return &format;
  return nullptr;
}

}  // namespace nvo
