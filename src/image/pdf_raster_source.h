#pragma once

#include <memory>
#include <string>

#include "image/raster_source.h"

namespace nvo {

/// Renders the first page of a PDF as a whole and serves rows from memory. Throws `load_pdf`'s exceptions.
std::shared_ptr<RasterSource> open_pdf_source(const std::string& path, SharedFailures failures);

}  // namespace nvo
