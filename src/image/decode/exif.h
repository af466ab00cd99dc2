#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace nvo {

/// What an Exif block says that decides how a picture lies on paper.
struct ExifFacts {
  static constexpr int kUpright = 1;

  int orientation = kUpright;       ///< 1 .. 8; 1 where none is stated
  double dpi_x = 0.0, dpi_y = 0.0;  ///< dots per inch, 0 where not stated
};

/// More of a block is not looked at; the directory stands at its beginning.
inline constexpr std::size_t kMaxExifBytes = 64 << 10;

/// Reads the first directory of an Exif block, with or without the mark "Exif" in front of it. What is
/// damaged or out of bounds counts as not stated. Format: Exif 2.32, tags 274, 282, 283 and 296.
ExifFacts read_exif(std::span<const std::uint8_t> block);

/// What viewers do with a picture of this orientation, for a person: "turned by 90 degrees clockwise".
const char* orientation_text(int orientation);

}  // namespace nvo
