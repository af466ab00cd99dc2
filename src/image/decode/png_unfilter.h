#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// Rows of a PNG of 8-bit samples as they are stored: each is a filter type and `samples` bytes a pixel, 1
/// gray, 2 gray and alpha, 3 RGB, 4 RGBA.
struct FilteredRows {
  const std::uint8_t* first;
  std::size_t pixels, samples;

  std::size_t row_bytes() const { return 1 + pixels * samples; }
  const std::uint8_t* row(std::size_t y) const { return first + y * row_bytes(); }
};

/// Undoes the filters (PNG 1.2, section 6) of up to `count` rows and widens them to RGBA, alpha 255 where
/// there is none. `rgba` holds the row above the first one, zeros for that of the image, and takes the rows
/// behind it. Returns how many rows were done: fewer where a filter type is none that there is.
std::size_t unfilter_png_rows(const FilteredRows& rows, std::size_t count, std::uint8_t* rgba);

}  // namespace nvo
