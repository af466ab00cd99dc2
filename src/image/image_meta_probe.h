#pragma once

#include <cstdint>
#include <string>

#include "image/image_types.h"

namespace nvo {

/// Pixel size and resolution of a file, found without decoding pixels.
struct ImageProbeInfo : ImagePath, ImageRemarks {
  ImageSourceKind kind = ImageSourceKind::unknown;
  std::uint32_t width = 0, height = 0;  ///< pixels
  float dpi_x = 0.0f, dpi_y = 0.0f;     ///< dots per inch, above 0
  float effective_dpi = 0.0f;           ///< the larger of the two
};

/// What the probe cache has done since the process began.
struct ImageProbeStats {
  std::uint64_t hits = 0, misses = 0;
  std::uint64_t probes[kImageSourceKinds] = {};  ///< files looked into, by `ImageSourceKind`
};

/// Probes a file, from a process-wide cache as long as its size, time and content hash stay the same. Throws
/// when the file cannot be read. Any thread may call it.
ImageProbeInfo probe_image(const std::string& path);

ImageProbeStats image_probe_stats();

}  // namespace nvo
