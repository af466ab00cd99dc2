#include "image/decode/bmp_header.h"

#include <algorithm>
#include <bit>
#include <string>

#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::size_t kFileHeaderBytes = 14;
constexpr std::size_t kDataStartAt = 10;  // in the file header
constexpr std::size_t kCoreBytes = 12, kShortOs2Bytes = 16, kInfoBytes = 40, kWithMasksBytes = 52,
                      kWithAlphaMaskBytes = 56;
constexpr std::size_t kOs2Bytes = 64, kV4Bytes = 108, kV5Bytes = 124;
constexpr std::uint32_t kNone = 0, kRle8 = 1, kRle4 = 2, kBitFields = 3, kAlphaBitFields = 6;
constexpr double kInchesPerMetre = 0.0254;

[[noreturn]] void fail(const char* text) {
  throw DecodeError(std::string("BMP: ") + text);
}

std::uint32_t little_u16(const std::uint8_t* bytes) {
  return bytes[0] | std::uint32_t{bytes[1]} << 8;
}
std::uint32_t little_u32(const std::uint8_t* bytes) {
  return little_u16(bytes) | little_u16(bytes + 2) << 16;
}
std::int32_t little_i32(const std::uint8_t* bytes) {
  return static_cast<std::int32_t>(little_u32(bytes));
}

/// The header behind the file header, zero behind what the file has.
struct InfoBlock {
  std::array<std::uint8_t, kV5Bytes> bytes{};
  std::size_t size = 0;

  std::uint32_t u16(std::size_t at) const { return little_u16(bytes.data() + at); }
  std::uint32_t u32(std::size_t at) const { return little_u32(bytes.data() + at); }
  std::int32_t i32(std::size_t at) const { return little_i32(bytes.data() + at); }
  bool is_core() const { return size == kCoreBytes; }
};

void read_exactly(ByteReader& reader, void* out, std::size_t count) {
  if (reader.read_exactly(out, count)) return;
  reader.require_sound();
  fail("the header ends early");
}

InfoBlock read_info_block(ByteReader& reader) {
  constexpr std::size_t kSizes[] = {kCoreBytes,          kShortOs2Bytes, kInfoBytes, kWithMasksBytes,
                                    kWithAlphaMaskBytes, kOs2Bytes,      kV4Bytes,   kV5Bytes};
  InfoBlock block;
  read_exactly(reader, block.bytes.data(), sizeof(std::uint32_t));
  block.size = block.u32(0);
  if (std::ranges::find(kSizes, block.size) == std::end(kSizes)) fail("unknown header size");
  read_exactly(reader, block.bytes.data() + sizeof(std::uint32_t), block.size - sizeof(std::uint32_t));
  return block;
}

void set_geometry(const InfoBlock& block, BmpHeader& bmp) {
  if (block.is_core()) {
    bmp.width = block.u16(4);
    bmp.height = block.u16(6);
    bmp.bits_per_pixel = static_cast<int>(block.u16(10));
    return;
  }
  const std::int64_t width = block.i32(4), height = block.i32(8);
  if (width < 0) fail("negative width");
  bmp.width = static_cast<std::uint32_t>(width);
  bmp.height = static_cast<std::uint32_t>(height < 0 ? -height : height);
  bmp.top_down = height < 0;
  bmp.bits_per_pixel = static_cast<int>(block.u16(14));
  bmp.dpi_x = block.i32(24) * kInchesPerMetre;
  bmp.dpi_y = block.i32(28) * kInchesPerMetre;
}

BmpField field_of_mask(std::uint32_t mask) {
  if (mask == 0) return {};
  const BmpField field{std::countr_zero(mask), std::popcount(mask)};
  if (std::countl_zero(mask) + field.shift + field.bits != 32) fail("a mask has gaps");
  return field;
}

/// Masks stand in the larger headers, or behind the plain one.
void set_fields(ByteReader& reader, const InfoBlock& block, std::uint32_t method, BmpHeader& bmp) {
  constexpr std::size_t kMasksAt = 40;
  constexpr BmpField k555[] = {{10, 5}, {5, 5}, {0, 5}, {}};
  constexpr BmpField k888[] = {{16, 8}, {8, 8}, {0, 8}, {}};
  if (method == kNone) {
    std::ranges::copy(bmp.bits_per_pixel == 16 ? k555 : k888, bmp.fields.begin());
    return;
  }
  std::array<std::uint8_t, 16> masks{};
  std::copy_n(block.bytes.begin() + kMasksAt, masks.size(), masks.begin());
  if (block.size == kInfoBytes) read_exactly(reader, masks.data(), method == kAlphaBitFields ? 16 : 12);

  std::uint32_t all = 0;
  for (std::size_t i = 0; i < bmp.fields.size(); ++i) {
    const std::uint32_t mask = little_u32(masks.data() + 4 * i);
    if ((all & mask) != 0) fail("masks overlap");
    all |= mask;
    bmp.fields[i] = field_of_mask(mask);
  }
  if (bmp.bits_per_pixel == 16 && all > 0xFFFF) fail("a mask is wider than a pixel");
}

void read_palette(ByteReader& reader, const InfoBlock& block, BmpHeader& bmp) {
  constexpr std::size_t kColorsUsedAt = 32;
  const std::size_t entry_bytes = block.is_core() ? 3 : 4;
  const std::size_t possible = std::size_t{1} << bmp.bits_per_pixel;
  std::size_t stated = block.u32(kColorsUsedAt);
  if (stated > possible) stated = 0;
  const std::uint64_t room = bmp.data_start - kFileHeaderBytes - block.size;
  if (stated * entry_bytes > room) fail("pixels overlap the palette");
  const auto used = stated != 0 ? stated : std::min<std::uint64_t>(possible, room / entry_bytes);

  bmp.palette.assign(possible, {0, 0, 0, 0xFF});
  for (std::size_t i = 0; i < used; ++i) {
    std::array<std::uint8_t, 4> bgr{};
    read_exactly(reader, bgr.data(), entry_bytes);
    bmp.palette[i] = {bgr[2], bgr[1], bgr[0], 0xFF};
  }
}

bool names_profile(const InfoBlock& block) {
  constexpr std::size_t kColorSpaceAt = 56;
  constexpr std::uint32_t kEmbedded = 0x4D424544, kLinked = 0x4C494E4B;  // "MBED", "LINK"
  const std::uint32_t color_space = block.u32(kColorSpaceAt);
  return color_space == kEmbedded || color_space == kLinked;
}

bool ends_below_spare_byte(const BmpField& field) {
  constexpr int kSpareByteAt = 24;
  return field.shift + field.bits <= kSpareByteAt;
}

/// Which pixel size goes with which way of storing it.
BmpCompression compression_of(std::uint32_t method, const InfoBlock& block, const BmpHeader& bmp) {
  const int bits = bmp.bits_per_pixel;
  if (method == kNone) {
    constexpr int kPlain[] = {1, 4, 8, 16, 24, 32};
    if (std::ranges::find(kPlain, bits) == std::end(kPlain)) fail("unknown pixel size");
    return BmpCompression::none;
  }
  if (method == kRle8 && bits == 8 && !bmp.top_down) return BmpCompression::rle8;
  if (method == kRle4 && bits == 4 && !bmp.top_down) return BmpCompression::rle4;
  const bool fields = (method == kBitFields || method == kAlphaBitFields) && block.size != kOs2Bytes;
  if (!fields || (bits != 16 && bits != 32)) fail("unknown compression");
  return BmpCompression::none;
}

}  // namespace

BmpHeader read_bmp_header(ByteReader& reader) {
  constexpr std::size_t kCompressionAt = 16;
  std::array<std::uint8_t, kFileHeaderBytes> file{};
  read_exactly(reader, file.data(), file.size());
  const InfoBlock block = read_info_block(reader);

  BmpHeader bmp;
  bmp.data_start = little_u32(file.data() + kDataStartAt);
  set_geometry(block, bmp);
  const std::uint32_t method = block.is_core() ? kNone : block.u32(kCompressionAt);
  bmp.compression = compression_of(method, block, bmp);
  if (bmp.data_start < kFileHeaderBytes + block.size) fail("pixels overlap the header");
  if (bmp.bits_per_pixel == 16 || bmp.bits_per_pixel == 32) set_fields(reader, block, method, bmp);
  if (bmp.bits_per_pixel <= 8) read_palette(reader, block, bmp);
  bmp.has_profile = block.size == kV5Bytes && names_profile(block);
  bmp.has_spare_byte = bmp.bits_per_pixel == 32 && std::ranges::all_of(bmp.fields, ends_below_spare_byte);
  return bmp;
}

}  // namespace nvo
