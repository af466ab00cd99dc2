#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nvo {

/// A rectangle inside a larger RGBA raster; rows are `stride` bytes apart.
struct RgbaTile {
  std::uint8_t* pixels = nullptr;
  std::uint32_t width = 0, height = 0;
  std::size_t stride = 0;
};

/// Decodes a PNG into `tile`. False, with libpng's words in `error`, when it is damaged; throws a runtime
/// error when it is of another size.
bool decode_page_png(std::string_view png, const RgbaTile& tile, std::string& error);

/// No PNG writer needs more bytes than this for such a picture.
std::uint64_t max_png_bytes(std::uint32_t width, std::uint32_t height);

}  // namespace nvo
