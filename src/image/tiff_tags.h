#pragma once

#include <cstdint>

#include <tiffio.h>

#include "image/tiff_channels.h"
#include "image/tiff_reader.h"

namespace nvo {

/// Value of a tag that holds one number, or `fallback` where the file lacks it.
template <class Value>
Value tiff_tag_or(TIFF* tiff, std::uint32_t tag, Value fallback) {
  Value value = fallback;
  return TIFFGetField(tiff, tag, &value) == 1 ? value : fallback;
}

/// InkNames, as far as there are samples for them; none where the tag or NumberOfInks is missing. Warns of
/// names without an end and of too many inks.
std::vector<std::string> read_ink_names(TIFF* tiff, std::uint16_t samples_per_pixel);

/// What the tags say of samples beyond the colour's own; logs what is wrong with the names of inks.
TiffSampleTags read_tiff_sample_tags(TIFF* tiff, std::uint16_t samples_per_pixel);

/// Reads and logs the tags of an open file; throws where the program cannot process such a file.
TiffMeta read_tiff_tags(TIFF* tiff);

}  // namespace nvo
