#pragma once

#include <memory>
#include <string>

#include "image/raster_source.h"
#include "image/row_stream.h"

namespace nvo {

/// Rows of a PNG, JPEG, BMP or WebP file. The file is decoded once, from the top as far as somebody has
/// asked, and reads come from the decoded rows, which lie in a temporary file when there are many. When the
/// file turns out to be damaged the source decodes the whole image into memory and serves rows from there,
/// for the rest of its life. Throws when the file cannot be opened.
std::shared_ptr<RasterSource> open_wic_source(const std::string& path, SharedFailures failures);

/// The same rows from the top to the bottom, decoded while they are used. Null where the decoder has to hold
/// the whole image: WebP, an interlaced PNG, a progressive JPEG. Throws when the file cannot be opened.
std::unique_ptr<RowStream> open_wic_stream(const std::string& path);

}  // namespace nvo
