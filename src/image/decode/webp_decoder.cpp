#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include <webp/decode.h>
#include <webp/demux.h>

#include "core/checked.h"
#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::size_t kHeaderBytes = 4096;  // the flags and the size stand far before that
constexpr std::size_t kRiffHeaderBytes = 8, kFirstChunkAt = 12;
constexpr std::size_t kPieceBytes = 256 << 10;

struct IncrementalDeleter {
  void operator()(WebPIDecoder* decoder) const { WebPIDelete(decoder); }
};
struct DemuxDeleter {
  void operator()(WebPDemuxer* demuxer) const { WebPDemuxDelete(demuxer); }
};

/// A frame of an animation: its place on the canvas and its data.
struct WebpFrame {
  int x = 0, y = 0, width = 0, height = 0;
  WebPData data{};  ///< inside the bytes that it was found in

  bool fits(const RasterInfo& canvas) const {
    const auto within = [](int offset, int size, std::uint32_t limit) {
      return offset >= 0 && size > 0 && std::int64_t{offset} + size <= limit;
    };
    return within(x, width, canvas.width) && within(y, height, canvas.height);
  }
};

/// False where there is no whole frame.
bool find_first_frame(const std::vector<std::uint8_t>& bytes, WebpFrame& frame) {
  WebPDemuxState state = WEBP_DEMUX_PARSING_HEADER;
  const WebPData data{bytes.data(), bytes.size()};
  const std::unique_ptr<WebPDemuxer, DemuxDeleter> demuxer(WebPDemuxPartial(&data, &state));
  WebPIterator found;
  if (!demuxer || WebPDemuxGetFrame(demuxer.get(), 1, &found) == 0) return false;
  frame = {found.x_offset, found.y_offset, found.width, found.height, found.fragment};
  const bool whole = found.complete != 0;
  WebPDemuxReleaseIterator(&found);
  return whole;
}

std::uint32_t little_u32(const std::uint8_t* bytes) {
  return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
         std::uint32_t{bytes[3]} << 24;
}

/// A file's chunks by their headers.
struct WebpOutline {
  std::uint64_t riff_bytes = 0;       ///< behind the RIFF header
  std::uint64_t first_frame_end = 0;  ///< of an animation
  std::uint32_t frames = 0;           ///< of an animation
  bool has_profile = false, is_lossy = false;
  ExifFacts exif;
};

WebpOutline read_outline(ByteReader& reader) {
  WebpOutline outline;
  std::array<std::uint8_t, kRiffHeaderBytes> head{};  // name and size
  reader.seek(0);
  if (reader.read_exactly(head.data(), head.size())) outline.riff_bytes = little_u32(head.data() + 4);
  const std::uint64_t end = std::min(outline.riff_bytes + kRiffHeaderBytes, reader.size());
  reader.seek(kFirstChunkAt);
  while (reader.position() < end && reader.read_exactly(head.data(), head.size())) {
    const std::string_view name(reinterpret_cast<const char*>(head.data()), 4);
    const std::uint64_t size = little_u32(head.data() + 4), data = reader.position();
    const std::uint64_t next = data + size + size % 2;
    if (name == "VP8 ") outline.is_lossy = true;
    if (name == "ICCP") outline.has_profile = true;
    if (name == "ANMF" && ++outline.frames == 1) outline.first_frame_end = next;
    if (name == "EXIF") {
      std::vector<std::uint8_t> block(std::min<std::uint64_t>(size, kMaxExifBytes));
      block.resize(reader.read(block.data(), block.size()));
      outline.exif = read_exif(block);
    }
    reader.seek(next);
  }
  return outline;
}

/// libwebp wants one buffer for the whole frame, but fills it from the top as the file comes in. Of an
/// animation the first frame is put on a transparent canvas, as a viewer has it before the animation runs.
class WebpDecoder final : public RasterDecoder {
 public:
  explicit WebpDecoder(ByteReader reader) : reader_(std::move(reader)) {
    std::array<std::uint8_t, kHeaderBytes> head{};
    const std::size_t got = reader_.read(head.data(), head.size());
    reader_.require_sound();
    WebPBitstreamFeatures features;
    if (WebPGetFeatures(head.data(), got, &features) != VP8_STATUS_OK)
      throw DecodeError("WebP: damaged header");
    outline_ = read_outline(reader_);
    reader_.require_sound();
    reader_.seek(0);
    is_animated_ = features.has_animation != 0;
    info_.format = "WebP";
    info_.width = static_cast<std::uint32_t>(features.width);
    info_.height = static_cast<std::uint32_t>(features.height);
    info_.has_alpha = features.has_alpha != 0;
    info_.needs_whole_frame = true;
    info_.has_profile = outline_.has_profile;
    info_.orientation = outline_.exif.orientation;
    if (is_animated_) open_first_frame();
  }

  /// A lossy frame spends more than a bit on the prediction of each macroblock. Lossless data has no bound,
  /// a single colour takes no bits at all, nor has a frame on a larger canvas.
  ImageClaim claim() const override {
    constexpr std::uint64_t kMacroblockPixels = 256, kMacroblocksPerByte = 8;
    const std::uint64_t claimed = std::uint64_t{row_bytes()} * info_.height;
    if (is_animated_ || !outline_.is_lossy) return {claimed, std::numeric_limits<std::uint64_t>::max()};
    const auto possible =
        checked_product(reader_.size(), kMacroblocksPerByte * kMacroblockPixels * kRgbaBytes);
    return {claimed, possible.value_or(std::numeric_limits<std::uint64_t>::max())};
  }

  void read_row(std::uint8_t* rgba) override {
    if (!frame_) {
      frame_ = std::make_unique_for_overwrite<std::uint8_t[]>(row_bytes() * info_.height);
      begin(frame_.get());
    }
    while (next_row_ >= rows_done_) decode_piece();
    std::memcpy(rgba, frame_.get() + next_row_++ * row_bytes(), row_bytes());
  }

  void read_image(std::vector<std::uint8_t>& pixels) override {
    pixels.resize(row_bytes() * info_.height);
    begin(pixels.data());
    while (rows_done_ < info_.height) decode_piece();
  }

 private:
  void prepare() override {
    if (outline_.riff_bytes + kRiffHeaderBytes > reader_.size())
      throw DecodeError("WebP: the file ends early");
  }

  /// Reads the file up to the end of the first frame.
  void open_first_frame() {
    info_.frames = outline_.frames;
    animation_.resize(std::min(outline_.first_frame_end, reader_.size()));
    animation_.resize(reader_.read(animation_.data(), animation_.size()));
    reader_.require_sound();
    errno = 0;
    if (!find_first_frame(animation_, first_) || !first_.fits(info_)) fail_decoding("damaged animation");
    const bool covers = static_cast<std::uint32_t>(first_.width) == info_.width &&
                        static_cast<std::uint32_t>(first_.height) == info_.height;
    if (!covers) info_.has_alpha = true;  // beside it the canvas is transparent
  }

  void begin(std::uint8_t* canvas) {
    if (is_animated_) return decode_first_frame(canvas);
    errno = 0;
    decoder_.reset(WebPINewRGB(MODE_RGBA, canvas, row_bytes() * info_.height, static_cast<int>(row_bytes())));
    if (!decoder_) throw std::bad_alloc();
    piece_.resize(kPieceBytes);
  }

  void decode_first_frame(std::uint8_t* canvas) {
    const std::size_t bytes = row_bytes() * info_.height;
    const std::size_t start =
        static_cast<std::size_t>(first_.y) * row_bytes() + static_cast<std::size_t>(first_.x) * kRgbaBytes;
    std::memset(canvas, 0, bytes);
    WebPDecoderConfig config;
    if (WebPInitDecoderConfig(&config) == 0) throw DecodeError("WebP: unexpected version of the library");
    config.output.colorspace = MODE_RGBA;
    config.output.is_external_memory = 1;
    config.output.u.RGBA = {canvas + start, static_cast<int>(row_bytes()), bytes - start};
    errno = 0;
    require(WebPDecode(first_.data.bytes, first_.data.size, &config));
    rows_done_ = info_.height;
  }

  void decode_piece() {
    const std::size_t got = reader_.read(piece_.data(), piece_.size());
    reader_.require_sound();
    if (got == 0) throw DecodeError("WebP: the file ends early");
    errno = 0;
    const VP8StatusCode status = WebPIAppend(decoder_.get(), piece_.data(), got);
    if (status != VP8_STATUS_SUSPENDED) require(status);
    int last_row = 0;
    if (WebPIDecGetRGB(decoder_.get(), &last_row, nullptr, nullptr, nullptr))
      rows_done_ = static_cast<std::size_t>(last_row);
  }

  void require(VP8StatusCode status) const {
    if (status == VP8_STATUS_OUT_OF_MEMORY) throw std::bad_alloc();
    if (status != VP8_STATUS_OK) fail_decoding("damaged data (status " + std::to_string(status) + ")");
  }

  /// libwebp reports some failed allocations, those for alpha and for Huffman tables, as damage. It makes no
  /// system call, so that the error number of the C library tells them apart; the caller has cleared it.
  [[noreturn]] static void fail_decoding(const std::string& what) {
    if (errno == ENOMEM) throw std::bad_alloc();
    throw DecodeError("WebP: " + what);
  }

  ByteReader reader_;
  WebpOutline outline_;
  bool is_animated_ = false;
  std::vector<std::uint8_t> animation_;  // up to the end of the first frame
  WebpFrame first_;                      // its data lies in `animation_`
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
