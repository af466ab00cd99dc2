#include "image/raster_source.h"

#include <stdexcept>
#include <utility>

#include "core/text.h"
#include "image/image_format.h"

namespace nvo {

std::shared_ptr<RasterSource> make_raster_source(const std::string& path, SharedFailures failures,
                                                 const ThreadPlan& threads) {
  const ImageFormat* format = find_image_format(lower_extension(path));
  if (!format) throw std::runtime_error("RasterSource: unsupported image extension: " + path);
  return format->open_source(path, std::move(failures), threads);
}

}  // namespace nvo
