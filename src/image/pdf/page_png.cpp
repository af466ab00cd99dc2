#include "image/pdf/page_png.h"

#include <new>
#include <stdexcept>
#include <string>

#include <png.h>

#include "core/text.h"

namespace nvo {
namespace {

/// libpng's reader; frees its state however the decoding ends.
class PngReader {
 public:
  PngReader() { image_.version = PNG_IMAGE_VERSION; }
  ~PngReader() { png_image_free(&image_); }
  PngReader(const PngReader&) = delete;
  PngReader& operator=(const PngReader&) = delete;

  bool open(std::string_view png) {
    return png_image_begin_read_from_memory(&image_, png.data(), png.size()) != 0;
  }
  bool read(const RgbaTile& tile) {
    image_.format = PNG_FORMAT_RGBA;
    const auto stride = static_cast<png_int_32>(tile.stride);
    return png_image_finish_read(&image_, nullptr, tile.pixels, stride, nullptr) != 0;
  }
  std::uint32_t width() const { return image_.width; }
  std::uint32_t height() const { return image_.height; }
  const char* message() const { return image_.message; }
  /// Throws where the last step failed for want of memory, which the library tells in words alone.
  void check_memory() const {
    const std::string words = ascii_lower(image_.message);
    if (words.find("out of memory") != std::string::npos ||
        words.find("insufficient memory") != std::string::npos)
      throw std::bad_alloc();
  }

 private:
  png_image image_{};
};

std::string size_text(std::uint32_t width, std::uint32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

bool decode_page_png(std::string_view png, const RgbaTile& tile, std::string& error) {
  PngReader reader;
  const bool is_png = reader.open(png);
  reader.check_memory();
  if (is_png && (reader.width() != tile.width || reader.height() != tile.height))
    throw std::runtime_error(
        "PdfRenderer: rendered PDF image dimensions did not match requested DPI: requested " +
        size_text(tile.width, tile.height) + ", got " + size_text(reader.width(), reader.height()));
  if (is_png && reader.read(tile)) return true;
  reader.check_memory();
  error = reader.message();
  return false;
}

std::uint64_t max_png_bytes(std::uint32_t width, std::uint32_t height) {
  constexpr std::uint64_t headers = 64 * 1024;
  const std::uint64_t filtered = (std::uint64_t{width} * 4 + 1) * height;
  return filtered + filtered / 64 + headers;  // stored blocks and chunk frames add well below 1/64
}

}  // namespace nvo
