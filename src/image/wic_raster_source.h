#pragma once

#include <memory>
#include <string>

#include "image/raster_source.h"

namespace nvo {

/// Rows of a PNG, JPEG, BMP or WebP file. The file is decoded once, from the top as far as somebody has
/// asked, and reads come from the decoded rows, which lie in a temporary file when there are many. When the
/// file turns out to be damaged the source decodes the whole image into memory and serves rows from there,
/// for the rest of its life. Throws when the file cannot be opened.
std::shared_ptr<RasterSource> open_wic_source(const std::string& path, SharedFailures failures);

}  // namespace nvo
