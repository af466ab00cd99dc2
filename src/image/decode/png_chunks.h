#pragma once

#include <cstdint>

#include "image/decode/byte_reader.h"
#include "image/decode/exif.h"

namespace nvo {

/// What stands in front of a PNG's pixels and doesn't make their colours.
struct PngChunks {
  bool has_profile = false;       ///< iCCP
  bool has_transparency = false;  ///< tRNS
  bool has_srgb = false;          ///< sRGB, above which gAMA says nothing
  std::uint32_t gamma = 0;        ///< gAMA, times 100,000
  std::uint32_t frames = 1;       ///< acTL
  ExifFacts exif;                 ///< eXIf
};

/// True when the file begins with a PNG's signature, behind which the reader then stands.
bool skip_png_signature(ByteReader& reader);

/// Walks the chunk headers behind the signature up to the pixels. Leaves the reader anywhere.
PngChunks scan_png_chunks(ByteReader& reader);

}  // namespace nvo
