#include "image/decode/raster_decoder.h"

#include <array>
#include <string_view>
#include <utility>

namespace nvo {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kMaxRowBytes = 64 << 20;  // far wider than any film
constexpr std::size_t kSignatureBytes = 12;

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
  prepare();
}

std::unique_ptr<RasterDecoder> open_raster_decoder(const std::string& path) {
  ByteReader reader(path);
  if (!reader.is_open()) return nullptr;
  std::array<char, kSignatureBytes> bytes{};
  const std::string_view head(bytes.data(), reader.read(bytes.data(), bytes.size()));
  for (const Codec& codec : kCodecs) {
    if (!head.starts_with(codec.start)) continue;
    if (!codec.at_eight.empty() && (head.size() < 8 || !head.substr(8).starts_with(codec.at_eight))) continue;
    reader.seek(0);
    return codec.open(std::move(reader));
  }
  return nullptr;
}

}  // namespace nvo
