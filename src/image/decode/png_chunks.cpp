#include "image/decode/png_chunks.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace nvo {
namespace {

constexpr std::string_view kSignature = "\x89PNG\r\n\x1A\n";

std::uint32_t big_u32(const char* bytes) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<std::uint8_t>(bytes[i]);
  return value;
}

/// 0 where the file ends.
std::uint32_t read_u32(ByteReader& reader) {
  std::array<char, 4> bytes{};
  return reader.read_exactly(bytes.data(), bytes.size()) ? big_u32(bytes.data()) : 0;
}

}  // namespace

bool skip_png_signature(ByteReader& reader) {
  std::array<char, kSignature.size()> bytes{};
  reader.seek(0);
  return reader.read_exactly(bytes.data(), bytes.size()) &&
         std::string_view(bytes.data(), bytes.size()) == kSignature;
}

PngChunks scan_png_chunks(ByteReader& reader) {
  constexpr std::size_t kCrcBytes = 4;
  PngChunks chunks;
  std::array<char, 8> head{};  // length and type
  reader.seek(kSignature.size());
  while (reader.read_exactly(head.data(), head.size())) {
    const std::uint64_t length = big_u32(head.data()), data = reader.position();
    const std::string_view type(head.data() + 4, 4);
    if (type == "IDAT" || type == "IEND") break;
    if (type == "iCCP") chunks.has_profile = true;
    if (type == "sRGB") chunks.has_srgb = true;
    if (type == "gAMA") chunks.gamma = read_u32(reader);
    if (type == "acTL") chunks.frames = read_u32(reader);
    if (type == "tRNS") chunks.has_transparency = true;
    if (type == "eXIf") {
      std::vector<std::uint8_t> block(std::min<std::uint64_t>(length, kMaxExifBytes));
      block.resize(reader.read(block.data(), block.size()));
      chunks.exif = read_exif(block);
    }
    reader.seek(data);
    reader.skip(length + kCrcBytes);
  }
  return chunks;
}

}  // namespace nvo
