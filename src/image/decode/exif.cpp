#include "image/decode/exif.h"

#include <algorithm>
#include <string_view>

namespace nvo {
namespace {

using namespace std::string_view_literals;

constexpr std::uint32_t kOrientation = 274, kXResolution = 282, kYResolution = 283, kResolutionUnit = 296;
constexpr std::uint32_t kShort = 3, kRational = 5;  // types of values
constexpr std::uint32_t kPerInch = 2, kPerCm = 3;
constexpr double kCmPerInch = 2.54;

/// Numbers at checked places of a block; 0 behind its end.
class ExifBlock {
 public:
  explicit ExifBlock(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  void set_big_endian(bool big) { big_endian_ = big; }
  std::uint32_t u16(std::uint64_t at) const { return number(at, 2); }
  std::uint32_t u32(std::uint64_t at) const { return number(at, 4); }

 private:
  std::uint32_t number(std::uint64_t at, std::uint32_t count) const {
    if (at > bytes_.size() || bytes_.size() - at < count) return 0;
    std::uint32_t value = 0;
    for (std::uint32_t i = 0; i < count; ++i)
      value = value << 8 | bytes_[static_cast<std::size_t>(at + (big_endian_ ? i : count - 1 - i))];
    return value;
  }

  std::span<const std::uint8_t> bytes_;
  bool big_endian_ = false;
};

/// The fraction whose place an entry gives, or 0.
double rational(const ExifBlock& block, std::uint64_t entry) {
  if (block.u16(entry + 2) != kRational) return 0.0;
  const std::uint64_t at = block.u32(entry + 8);
  const std::uint32_t below = block.u32(at + 4);
  return below == 0 ? 0.0 : static_cast<double>(block.u32(at)) / below;
}

std::span<const std::uint8_t> without_mark(std::span<const std::uint8_t> block) {
  constexpr std::string_view kMark = "Exif\0\0"sv;
  const bool marked = block.size() >= kMark.size() &&
                      std::equal(kMark.begin(), kMark.end(), block.begin(), [](char c, std::uint8_t byte) {
                        return static_cast<std::uint8_t>(c) == byte;
                      });
  return marked ? block.subspan(kMark.size()) : block;
}

}  // namespace

ExifFacts read_exif(std::span<const std::uint8_t> bytes) {
  constexpr std::uint32_t kLittle = 0x4949, kBig = 0x4D4D, kMagic = 42, kEntryBytes = 12;
  ExifFacts facts;
  ExifBlock block(without_mark(bytes));
  const std::uint32_t order = block.u16(0);
  block.set_big_endian(order == kBig);
  if ((order != kLittle && order != kBig) || block.u16(2) != kMagic) return facts;

  double x = 0.0, y = 0.0;
  std::uint32_t unit = kPerInch;  // where none stands
  const std::uint64_t directory = block.u32(4);
  const std::uint32_t entries = block.u16(directory);
  for (std::uint32_t i = 0; i < entries; ++i) {
    const std::uint64_t entry = directory + 2 + std::uint64_t{i} * kEntryBytes;
    const std::uint32_t tag = block.u16(entry);
    const std::uint32_t value = block.u16(entry + 2) == kShort ? block.u16(entry + 8) : 0;
    if (tag == kOrientation && value >= 1 && value <= 8) facts.orientation = static_cast<int>(value);
    if (tag == kXResolution) x = rational(block, entry);
    if (tag == kYResolution) y = rational(block, entry);
    if (tag == kResolutionUnit) unit = value;
  }
  if (unit != kPerInch && unit != kPerCm) return facts;
  const double per_inch = unit == kPerCm ? kCmPerInch : 1.0;
  facts.dpi_x = x * per_inch;
  facts.dpi_y = y * per_inch;
  return facts;
}

const char* orientation_text(int orientation) {
  constexpr const char* kTexts[] = {"mirrored",
                                    "turned by 180 degrees",
                                    "mirrored upside down",
                                    "mirrored and turned by 90 degrees counter-clockwise",
                                    "turned by 90 degrees clockwise",
                                    "mirrored and turned by 90 degrees clockwise",
                                    "turned by 90 degrees counter-clockwise"};
  return orientation >= 2 && orientation <= 8 ? kTexts[orientation - 2] : "as it is";
}

}  // namespace nvo
