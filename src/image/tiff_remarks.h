#pragma once

#include "image/image_types.h"
#include "image/tiff_file.h"
#include "image/tiff_reader.h"

namespace nvo {

/// What the tags hold that the film will not show, and what is assumed where they say nothing.
ImageRemarks remark_tiff(const TiffFile& file, const TiffMeta& meta);

}  // namespace nvo
