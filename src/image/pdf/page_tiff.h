#pragma once

#include <cstddef>
#include <cstdint>

#include "core/pixel_spool.h"

namespace nvo {

/// A rectangle inside a larger RGBA raster; rows are `stride` bytes apart.
struct RgbaTile {
  std::uint8_t* pixels = nullptr;
  std::uint32_t width = 0, height = 0;
  std::size_t stride = 0;
};

/// Reads the TIFF of a rendered page into `tile`: uncompressed RGBA whose colours were multiplied by alpha,
/// of which straight ones are made. False where the file is of another kind or damaged; throws a runtime
/// error where it is of another size.
bool read_page_tiff(const PixelSpool& spool, const RgbaTile& tile);

/// The TIFF of such a picture has no more bytes than this.
std::uint64_t max_page_tiff_bytes(std::uint32_t width, std::uint32_t height);

/// Makes straight colours of RGBA pixels whose colours were multiplied by alpha: (255 c + a / 2) / a in whole
/// numbers, which is what writers of PNG make of such pixels.
void divide_by_alpha(std::uint8_t* rgba, std::size_t pixels);

}  // namespace nvo
