#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "core/checked.h"
#include "image/decode/bmp_header.h"
#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::uint32_t kAlpha = 3;
constexpr int kTableBits = 8;
constexpr std::size_t kBlockBytes = 256 << 10;

std::uint8_t to_byte(std::uint32_t value, int bits) {
  const std::uint64_t top = (std::uint64_t{1} << bits) - 1;
  return static_cast<std::uint8_t>((value * std::uint64_t{255} + top / 2) / top);
}

/// Brings one channel of a masked pixel to a byte.
class FieldScaler {
 public:
  FieldScaler(BmpField field, std::uint8_t absent) : field_(field) {
    if (field.bits == 0) table_[0] = absent;
    for (std::uint32_t v = 0; is_tabled() && field.bits != 0 && v <= top(); ++v)
      table_[v] = to_byte(v, field.bits);
  }

  std::uint8_t operator()(std::uint32_t pixel) const {
    const std::uint32_t value = static_cast<std::uint32_t>(pixel >> field_.shift & top());
    return is_tabled() ? table_[value] : to_byte(value, field_.bits);
  }

 private:
  bool is_tabled() const { return field_.bits <= kTableBits; }
  std::uint64_t top() const { return (std::uint64_t{1} << field_.bits) - 1; }

  BmpField field_;
  std::array<std::uint8_t, 1 << kTableBits> table_{};
};

class BmpDecoder final : public RasterDecoder {
 public:
  explicit BmpDecoder(ByteReader reader) : reader_(std::move(reader)), bmp_(read_bmp_header(reader_)) {
    info_.format = "BMP";
    info_.width = bmp_.width;
    info_.height = bmp_.height;
    info_.dpi_x = bmp_.dpi_x;
    info_.dpi_y = bmp_.dpi_y;
    info_.has_alpha = bmp_.fields[kAlpha].bits != 0;
    info_.has_profile = bmp_.has_profile;
    info_.needs_whole_frame = is_run_length();
    for (std::size_t i = 0; i < bmp_.fields.size(); ++i)
      scalers_.emplace_back(bmp_.fields[i], i == kAlpha ? std::uint8_t{0xFF} : std::uint8_t{0});
  }

  /// The best that run lengths can do is 255 pixels for two bytes.
  ImageClaim claim() const override {
    constexpr std::uint64_t kMaxRun = 255, kRunBytes = 2;
    const std::uint64_t held = reader_.size() - std::min(bmp_.data_start, reader_.size());
    if (is_run_length())
      return {std::uint64_t{info_.width} * info_.height, held / kRunBytes * kMaxRun + kMaxRun - 1};
    const auto stored = checked_product(bmp_.stride(), info_.height);
    return {stored.value_or(std::numeric_limits<std::uint64_t>::max()), held};
  }

  void read_row(std::uint8_t* rgba) override {
    if (is_run_length()) {
      if (indices_.empty()) decode_runs();
      const auto* row = indices_.data() + std::size_t{next_row_++} * info_.width;
      for (std::uint32_t x = 0; x < info_.width; ++x, rgba += kRgbaBytes)
        std::memcpy(rgba, bmp_.palette[row[x]].data(), kRgbaBytes);
      return;
    }
    const std::uint32_t stored = bmp_.top_down ? next_row_ : info_.height - 1 - next_row_;
    ++next_row_;
    const std::uint8_t* row = stored_row(stored);
    unpack_row(row, rgba);
    if (bmp_.has_spare_byte) look_at_spare_byte(row);
  }

 private:
  bool is_run_length() const { return bmp_.compression != BmpCompression::none; }

  void prepare() override {}

  /// Reads blocks of rows, since most files are walked backwards.
  const std::uint8_t* stored_row(std::uint32_t y) {
    const auto stride = static_cast<std::size_t>(bmp_.stride());
    if (block_.empty() || y < block_begin_ || y - block_begin_ >= block_.size() / stride) {
      const auto most = static_cast<std::uint32_t>(std::max<std::size_t>(1, kBlockBytes / stride));
      block_begin_ = bmp_.top_down ? y : y + 1 - std::min(y + 1, most);
      block_.resize(std::min(most, info_.height - block_begin_) * stride);
      reader_.seek(bmp_.data_start + block_begin_ * bmp_.stride());
      if (!reader_.read_exactly(block_.data(), block_.size())) fail_early();
    }
    return block_.data() + (y - block_begin_) * stride;
  }

  [[noreturn]] void fail_early() const {
    reader_.require_sound();
    throw DecodeError("BMP: the file ends early");
  }

  /// A fourth byte that no mask claims is filler, yet some programs keep alpha there.
  void look_at_spare_byte(const std::uint8_t* stored) {
    constexpr std::size_t kPixelBytes = 4, kSpare = 3;
    if (!first_spare_byte_) first_spare_byte_ = stored[kSpare];
    for (std::size_t i = kSpare; bmp_.has_spare_byte && i < info_.width * kPixelBytes; i += kPixelBytes) {
      if (stored[i] == *first_spare_byte_) continue;
      warn_of_art(
          reader_.path(),
          "the fourth byte of its pixels varies as alpha does, but no mask of the file names alpha: the "
          "film has it as opaque art");
      bmp_.has_spare_byte = false;
    }
  }

  void unpack_row(const std::uint8_t* stored, std::uint8_t* rgba) const {
    switch (bmp_.bits_per_pixel) {
      case 16:
        return unpack_fields<2>(stored, rgba);
      case 24:
        return unpack_bgr(stored, rgba);
      case 32:
        return unpack_fields<4>(stored, rgba);
      default:
        return unpack_indices(stored, rgba);
    }
  }

  void unpack_bgr(const std::uint8_t* bgr, std::uint8_t* rgba) const {
    for (std::uint32_t x = 0; x < info_.width; ++x, bgr += 3, rgba += kRgbaBytes) {
      rgba[0] = bgr[2];
      rgba[1] = bgr[1];
      rgba[2] = bgr[0];
      rgba[3] = 0xFF;
    }
  }

  template <int kPixelBytes>
  void unpack_fields(const std::uint8_t* bytes, std::uint8_t* rgba) const {
    for (std::uint32_t x = 0; x < info_.width; ++x, bytes += kPixelBytes, rgba += kRgbaBytes) {
      std::uint32_t pixel = 0;
      for (int i = 0; i < kPixelBytes; ++i) pixel |= std::uint32_t{bytes[i]} << (8 * i);
      for (std::size_t channel = 0; channel < kRgbaBytes; ++channel) rgba[channel] = scalers_[channel](pixel);
    }
  }

  /// Several pixels to a byte, the leftmost in the highest bits.
  void unpack_indices(const std::uint8_t* packed, std::uint8_t* rgba) const {
    const unsigned bits = static_cast<unsigned>(bmp_.bits_per_pixel), mask = (1u << bits) - 1;
    for (std::uint32_t x = 0; x < info_.width; ++x, rgba += kRgbaBytes) {
      const std::uint64_t end_bit = (std::uint64_t{x} + 1) * bits - 1;
      const unsigned index = packed[end_bit / 8] >> (7 - end_bit % 8) & mask;
      std::memcpy(rgba, bmp_.palette[index].data(), kRgbaBytes);
    }
  }

  std::uint8_t next_byte() {
    std::uint8_t byte = 0;
    if (!reader_.read_exactly(&byte, 1)) fail_early();
    return byte;
  }

  /// Runs of indices from the bottom row up. Pixels that no run touches keep index 0.
  void decode_runs() {
    indices_.resize(std::size_t{info_.width} * info_.height);
    reader_.seek(bmp_.data_start);
    RunCursor at{0, 0};
    while (at.y < info_.height) {
      const std::uint8_t count = next_byte(), value = next_byte();
      if (count != 0)
        put_run(at, count, value);
      else if (value == kEndOfImage)
        return;
      else if (value == kEndOfRow)
        at = {0, at.y + 1};
      else if (value == kMove)
        at = {at.x + next_byte(), at.y + next_byte()};
      else
        put_literals(at, value);
    }
  }

  struct RunCursor {
    std::uint32_t x, y;  ///< y counts from the bottom
  };

  /// What stands behind the image's right edge is dropped.
  void put(RunCursor& at, std::uint8_t index) {
    if (at.x < info_.width) indices_[std::size_t{info_.height - 1 - at.y} * info_.width + at.x++] = index;
  }

  void put_run(RunCursor& at, unsigned count, std::uint8_t value) {
    const bool nibbles = bmp_.compression == BmpCompression::rle4;
    for (unsigned i = 0; i < count; ++i) put(at, nibbles ? nibble(value, i) : value);
  }

  /// Padded to a whole number of 16-bit words.
  void put_literals(RunCursor& at, unsigned count) {
    const bool nibbles = bmp_.compression == BmpCompression::rle4;
    const unsigned bytes = nibbles ? (count + 1) / 2 : count;
    std::uint8_t value = 0;
    for (unsigned i = 0; i < count; ++i) {
      if (!nibbles || i % 2 == 0) value = next_byte();
      put(at, nibbles ? nibble(value, i) : value);
    }
    if (bytes % 2 != 0) next_byte();
  }

  static std::uint8_t nibble(std::uint8_t pair, unsigned position) {
    return position % 2 == 0 ? pair >> 4 : pair & 0x0F;
  }

  static constexpr std::uint8_t kEndOfRow = 0, kEndOfImage = 1, kMove = 2;

  ByteReader reader_;
  BmpHeader bmp_;
  std::vector<FieldScaler> scalers_;  // red, green, blue, alpha
  std::vector<std::uint8_t> block_;   // rows as stored
  std::uint32_t block_begin_ = 0;
  std::vector<std::uint8_t> indices_;  // of a run-length file, one a pixel
  std::uint32_t next_row_ = 0;
  std::optional<std::uint8_t> first_spare_byte_;
};

}  // namespace

std::unique_ptr<RasterDecoder> open_bmp_decoder(ByteReader reader) {
  return std::make_unique<BmpDecoder>(std::move(reader));
}

}  // namespace nvo
