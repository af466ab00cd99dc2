#include "image/decode/raster_decoder.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "core/large_vector.h"
#include "core/log.h"

namespace nvo {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kMaxRowBytes = 64 << 20;  // far wider than any film
constexpr std::size_t kSignatureBytes = 12;
constexpr std::size_t kBlockBytes = 1 << 20;  // stays in the cache between clearing and decoding

struct Codec {
  std::string_view start;     ///< first bytes of every file
  std::string_view at_eight;  ///< bytes at position 8
  std::unique_ptr<RasterDecoder> (*open)(ByteReader reader);
};

constexpr Codec kCodecs[] = {
    {"\x89PNG\r\n\x1A\n"sv, ""sv, open_png_decoder},
    {"\xFF\xD8\xFF"sv, ""sv, open_jpeg_decoder},
    {"RIFF"sv, "WEBP"sv, open_webp_decoder},
    {"BM"sv, ""sv, open_bmp_decoder},
};

}  // namespace

void RasterDecoder::start() {
  if (row_bytes() > kMaxRowBytes) throw DecodeError("rows are too long");
  if (!claim().is_possible())
    throw DecodeError(std::string(info_.format) + ": the file is too short for its size in pixels");
  prepare();
}

/// The buffer grows with the rows, so that a file that turns out to be damaged costs no more than what it
/// held.
void RasterDecoder::read_image(std::vector<std::uint8_t>& pixels) {
  pixels.clear();
  reserve_large(pixels, row_bytes() * info_.height);
  const std::size_t block_rows = std::max<std::size_t>(1, kBlockBytes / row_bytes());
  for (std::size_t y = 0; y < info_.height;) {
    const std::size_t end = std::min<std::size_t>(info_.height, y + block_rows);
    pixels.resize(end * row_bytes());
    for (; y < end; ++y) read_row(pixels.data() + y * row_bytes());
  }
}

std::unique_ptr<RasterDecoder> open_raster_decoder(ByteReader reader) {
  if (!reader.is_open()) return nullptr;
  std::array<char, kSignatureBytes> bytes{};
  const std::string_view head(bytes.data(), reader.read(bytes.data(), bytes.size()));
  reader.require_sound();
  for (const Codec& codec : kCodecs) {
    if (!head.starts_with(codec.start)) continue;
    if (!codec.at_eight.empty() && (head.size() < 8 || !head.substr(8).starts_with(codec.at_eight))) continue;
    reader.seek(0);
    return codec.open(std::move(reader));
  }
  return nullptr;
}

void warn_of_art(const std::string& path, const std::string& text) {
  log_warn("Art '", path, "': ", text);
}

}  // namespace nvo
