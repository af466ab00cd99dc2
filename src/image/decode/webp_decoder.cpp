#include <array>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <webp/decode.h>

#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::size_t kHeaderBytes = 4096;  // the flags and the size stand far before that
constexpr std::size_t kRiffSizeAt = 4, kRiffHeaderBytes = 8;
constexpr std::size_t kPieceBytes = 256 << 10;

struct IncrementalDeleter {
  void operator()(WebPIDecoder* decoder) const { WebPIDelete(decoder); }
};

/// libwebp wants one buffer for the whole frame, but fills it from the top as the file comes in.
class WebpDecoder final : public RasterDecoder {
 public:
  explicit WebpDecoder(ByteReader reader) : reader_(std::move(reader)) {
    std::array<std::uint8_t, kHeaderBytes> head{};
    const std::size_t got = reader_.read(head.data(), head.size());
    reader_.seek(0);
    WebPBitstreamFeatures features;
    if (WebPGetFeatures(head.data(), got, &features) != VP8_STATUS_OK)
      throw DecodeError("WebP: damaged header");
    if (features.has_animation) throw DecodeError("WebP: animations are not supported");
    info_.width = static_cast<std::uint32_t>(features.width);
    info_.height = static_cast<std::uint32_t>(features.height);
    info_.has_alpha = features.has_alpha != 0;
    info_.needs_whole_frame = true;
    for (std::size_t i = 0; i < sizeof(std::uint32_t); ++i)
      riff_bytes_ |= std::uint64_t{head[kRiffSizeAt + i]} << (8 * i);
  }

  void read_row(std::uint8_t* rgba) override {
    if (!decoder_) {
      frame_ = std::make_unique_for_overwrite<std::uint8_t[]>(row_bytes() * info_.height);
      decode_into(frame_.get());
    }
    while (next_row_ >= rows_done_) decode_piece();
    std::memcpy(rgba, frame_.get() + next_row_++ * row_bytes(), row_bytes());
  }

  void read_image(std::vector<std::uint8_t>& pixels) override {
    pixels.resize(row_bytes() * info_.height);
    decode_into(pixels.data());
    while (rows_done_ < info_.height) decode_piece();
  }

 private:
  void prepare() override {
    if (riff_bytes_ + kRiffHeaderBytes > reader_.size()) throw DecodeError("WebP: the file ends early");
  }

  void decode_into(std::uint8_t* frame) {
    decoder_.reset(WebPINewRGB(MODE_RGBA, frame, row_bytes() * info_.height, static_cast<int>(row_bytes())));
    if (!decoder_) throw std::bad_alloc();
    piece_.resize(kPieceBytes);
  }

  void decode_piece() {
    const std::size_t got = reader_.read(piece_.data(), piece_.size());
    if (got == 0) throw DecodeError("WebP: the file ends early");
    const VP8StatusCode status = WebPIAppend(decoder_.get(), piece_.data(), got);
    if (status != VP8_STATUS_OK && status != VP8_STATUS_SUSPENDED)
      throw DecodeError("WebP: damaged data (status " + std::to_string(status) + ")");
    int last_row = 0;
    if (WebPIDecGetRGB(decoder_.get(), &last_row, nullptr, nullptr, nullptr))
      rows_done_ = static_cast<std::size_t>(last_row);
  }

  ByteReader reader_;
  std::uint64_t riff_bytes_ = 0;  // behind the RIFF header
  std::unique_ptr<std::uint8_t[]> frame_;
  std::unique_ptr<WebPIDecoder, IncrementalDeleter> decoder_;  // writes into the frame
  std::vector<std::uint8_t> piece_;
  std::size_t next_row_ = 0, rows_done_ = 0;
};

}  // namespace

std::unique_ptr<RasterDecoder> open_webp_decoder(ByteReader reader) {
  return std::make_unique<WebpDecoder>(std::move(reader));
}

}  // namespace nvo
