#pragma once

#include <memory>
#include <string>

#include "image/raster_source.h"

namespace nvo {

/// Reads bands straight from the file. After the first failure of such a read it decodes the whole image and
/// serves rows from memory, for the rest of its life. Throws the reader's exceptions when the file cannot be
/// opened.
std::shared_ptr<RasterSource> open_tiff_source(const std::string& path, SharedFailures failures,
                                               const ThreadPlan& threads);

}  // namespace nvo
