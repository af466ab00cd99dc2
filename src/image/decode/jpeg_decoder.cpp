#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>  // jpeglib.h takes FILE as given
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include <jerror.h>
#include <jpeglib.h>

#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

#ifndef JCS_ALPHA_EXTENSIONS
#error "libjpeg-turbo with RGBA output is needed"
#endif

// A progressive file has 10 to 18 scans. Each costs a pass over the whole image, so a large image may have
// fewer.
constexpr std::uint64_t kMaxScans = 100, kMaxScansOfAnySize = 24, kMaxScannedPixels = std::uint64_t{1} << 30;
constexpr std::uint64_t kBlocksPerByte =
    8;  // the shortest Huffman code has one bit, and a block has one code
constexpr UINT8 kDensityPerInch = 1, kDensityPerCm = 2;
constexpr double kCmPerInch = 2.54;
constexpr JOCTET kEndOfImage[] = {0xFF, JPEG_EOI};

constexpr const char* kTooManyScans = "too many scans";

/// The bytes of a file one after the other.
class MarkerWalk {
 public:
  explicit MarkerWalk(ByteReader& reader) : reader_(reader) {}

  /// -1 at the end.
  int next() {
    if (!fill()) return -1;
    const int byte = block_.front();
    block_ = block_.subspan(1);
    return byte;
  }
  void skip(std::size_t count) {
    const std::size_t here = std::min(count, block_.size());
    block_ = block_.subspan(here);
    if (count > here) reader_.skip(count - here);
  }
  /// The code of the next marker, -1 if there is none.
  int next_marker() {
    while (fill()) {
      const void* found = std::memchr(block_.data(), kMarkerPrefix, block_.size());
      if (found == nullptr) {
        block_ = {};
        continue;
      }
      skip(static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - block_.data()));
      int code = kMarkerPrefix;
      while (code == kMarkerPrefix) code = next();
      if (code != 0) return code;  // 0 makes the prefix a byte of pixel data
    }
    return -1;
  }

 private:
  static constexpr int kMarkerPrefix = 0xFF;

  bool fill() {
    if (block_.empty()) block_ = reader_.next_block();
    return !block_.empty();
  }

  ByteReader& reader_;
  std::span<const std::uint8_t> block_;
};

/// Scans of a file by its markers, without decoding; 1 for a sequential file that begins with a scan of all
/// its components. Leaves the reader anywhere.
std::uint64_t count_scans(ByteReader& reader) {
  constexpr int kFrames = 0xC0, kLastSequential = 0xC1, kStartOfImage = 0xD8, kStartOfScan = 0xDA;
  constexpr std::size_t kBeforeComponents = 5;  // precision, height and width of a frame
  MarkerWalk walk(reader);
  std::uint64_t scans = 0;
  int frame = -1, frame_components = 0;
  for (int code = walk.next_marker(); code >= 0 && code != JPEG_EOI; code = walk.next_marker()) {
    if (code < kFrames || (code >= JPEG_RST0 && code <= kStartOfImage)) continue;  // markers without a length
    const int high = walk.next(), low = walk.next();
    std::size_t left = high < 0 || low < 0 ? 0 : static_cast<std::size_t>(high << 8 | low);
    if (left < 2) return scans;
    left -= 2;
    if (code <= kLastSequential && left > kBeforeComponents) {
      walk.skip(kBeforeComponents);
      frame = code;
      frame_components = walk.next();
      left -= kBeforeComponents + 1;
    } else if (code == kStartOfScan && left > 0) {
      ++scans;
      const int components = walk.next();
      --left;
      if (scans == 1 && frame >= 0 && components == frame_components) return scans;
    }
    walk.skip(left);
  }
  return scans;
}

/// What libjpeg's callbacks see. They must not throw.
struct JpegState {
  explicit JpegState(ByteReader opened) : reader(std::move(opened)) {}

  jpeg_error_mgr errors{};
  jpeg_source_mgr source{};
  jpeg_progress_mgr progress{};
  std::jmp_buf failed{};
  bool multi_scan = false;
  std::array<char, JMSG_LENGTH_MAX> message{};
  ByteReader reader;
};

JpegState& state_of(j_common_ptr jpeg) {
  return *static_cast<JpegState*>(jpeg->client_data);
}

[[noreturn]] void on_error(j_common_ptr jpeg) {
  JpegState& state = state_of(jpeg);
  jpeg->err->format_message(jpeg, state.message.data());
  std::longjmp(state.failed, 1);
}

[[noreturn]] void fail(j_common_ptr jpeg, const char* text) {
  JpegState& state = state_of(jpeg);
  std::snprintf(state.message.data(), state.message.size(), "%s", text);
  std::longjmp(state.failed, 1);
}

/// libjpeg goes on with gray areas where data is missing or wrong; such warnings end the decoding here.
/// Others (stray bytes between markers, odd version numbers) cost no pixels.
void on_message(j_common_ptr jpeg, int level) {
  constexpr int kPixelLosses[] = {JWRN_HIT_MARKER, JWRN_HUFF_BAD_CODE, JWRN_MUST_RESYNC};
  if (level < 0 && std::ranges::find(kPixelLosses, jpeg->err->msg_code) != std::end(kPixelLosses))
    on_error(jpeg);
}

void on_output(j_common_ptr) {}

std::uint64_t most_scans(const jpeg_decompress_struct& jpeg) {
  const std::uint64_t pixels = std::uint64_t{jpeg.image_width} * jpeg.image_height;
  return std::clamp(kMaxScannedPixels / pixels, kMaxScansOfAnySize, kMaxScans);
}

/// For files in which `count_scans` went astray.
void on_progress(j_common_ptr jpeg) {
  const auto& file = *reinterpret_cast<j_decompress_ptr>(jpeg);
  if (static_cast<std::uint64_t>(file.input_scan_number) > most_scans(file)) fail(jpeg, kTooManyScans);
}

void no_source_call(j_decompress_ptr) {}

/// A file with one scan may lack its end marker; with several, the rest of the scans would be missing.
boolean fill_input(j_decompress_ptr jpeg) {
  const auto common = reinterpret_cast<j_common_ptr>(jpeg);
  JpegState& state = state_of(common);
  std::span<const JOCTET> block = state.reader.next_block();
  if (block.empty() && state.multi_scan) fail(common, "the file ends early");
  if (block.empty()) block = kEndOfImage;
  state.source.next_input_byte = block.data();
  state.source.bytes_in_buffer = block.size();
  return TRUE;
}

void skip_input(j_decompress_ptr jpeg, long count) {
  if (count <= 0) return;
  JpegState& state = state_of(reinterpret_cast<j_common_ptr>(jpeg));
  const auto wanted = static_cast<std::size_t>(count);
  const std::size_t here = std::min(wanted, state.source.bytes_in_buffer);
  state.source.next_input_byte += here;
  state.source.bytes_in_buffer -= here;
  if (wanted > here) state.reader.skip(wanted - here);
}

void connect(jpeg_decompress_struct& jpeg, JpegState& state) {
  jpeg.err = jpeg_std_error(&state.errors);
  state.errors.error_exit = on_error;
  state.errors.emit_message = on_message;
  state.errors.output_message = on_output;
  jpeg.client_data = &state;
  state.source.init_source = no_source_call;
  state.source.fill_input_buffer = fill_input;
  state.source.skip_input_data = skip_input;
  state.source.resync_to_restart = jpeg_resync_to_restart;
  state.source.term_source = no_source_call;
  state.progress.progress_monitor = on_progress;
}

/// Runs calls of libjpeg; false when one failed. It leaves by longjmp, so `calls` may hold nothing that has a
/// destructor.
template <class Calls>
bool guarded(JpegState& state, const Calls& calls) {
  if (setjmp(state.failed) != 0) return false;
  calls();
  return true;
}

/// Light that the ink and black leave, in place. Adobe's files store ink as its complement.
void cmyk_to_rgba(std::uint8_t* pixel, std::size_t count, bool stored_as_complement) {
  const std::uint8_t flip = stored_as_complement ? 0x00 : 0xFF;
  for (std::size_t i = 0; i < count; ++i, pixel += kRgbaBytes) {
    const unsigned key = static_cast<std::uint8_t>(pixel[3] ^ flip);
    for (int channel = 0; channel < 3; ++channel) {
      const unsigned light = static_cast<std::uint8_t>(pixel[channel] ^ flip);
      pixel[channel] = static_cast<std::uint8_t>((light * key + 127) / 255);
    }
    pixel[3] = 0xFF;
  }
}

class JpegDecoder final : public RasterDecoder {
 public:
  explicit JpegDecoder(ByteReader reader) : state_(std::make_unique<JpegState>(std::move(reader))) {
    scans_ = count_scans(state_->reader);
    state_->reader.seek(0);
    connect(jpeg_, *state_);
    if (!read_header()) {
      const DecodeError error = failure();
      jpeg_destroy_decompress(&jpeg_);
      throw error;
    }
  }
  ~JpegDecoder() override { jpeg_destroy_decompress(&jpeg_); }
  JpegDecoder(const JpegDecoder&) = delete;
  JpegDecoder& operator=(const JpegDecoder&) = delete;

  void read_row(std::uint8_t* rgba) override {
    const bool done = guarded(*state_, [&] {
      if (!started_) jpeg_start_decompress(&jpeg_);
      started_ = true;
      jpeg_read_scanlines(&jpeg_, &rgba, 1);
    });
    if (!done) throw failure();
    if (jpeg_.out_color_space == JCS_CMYK) cmyk_to_rgba(rgba, info_.width, jpeg_.saw_Adobe_marker);
  }

 private:
  bool read_header() {
    return guarded(*state_, [&] {
      jpeg_create_decompress(&jpeg_);
      jpeg_.src = &state_->source;
      jpeg_.progress = &state_->progress;
      jpeg_read_header(&jpeg_, TRUE);
      state_->multi_scan = jpeg_has_multiple_scans(&jpeg_);
      describe();
    });
  }

  void describe() {
    info_.width = jpeg_.image_width;
    info_.height = jpeg_.image_height;
    info_.needs_whole_frame = state_->multi_scan;
    const UINT8 unit = jpeg_.density_unit;
    if (!jpeg_.saw_JFIF_marker || (unit != kDensityPerInch && unit != kDensityPerCm)) return;
    const double per_inch = unit == kDensityPerCm ? kCmPerInch : 1.0;
    info_.dpi_x = jpeg_.X_density * per_inch;
    info_.dpi_y = jpeg_.Y_density * per_inch;
  }

  void prepare() override {
    // Its codes have no least length, so that no size could be doubted; other readers refuse it too.
    if (jpeg_.arith_code) throw DecodeError("JPEG: arithmetic coding is not supported");
    for (const jpeg_component_info& part : std::span(jpeg_.comp_info, jpeg_.num_components)) {
      const std::uint64_t blocks = std::uint64_t{part.width_in_blocks} * part.height_in_blocks;
      if (blocks / kBlocksPerByte > state_->reader.size())
        throw DecodeError("JPEG: the file is too short for its size in pixels");
    }
    switch (jpeg_.jpeg_color_space) {
      case JCS_GRAYSCALE:
      case JCS_RGB:
      case JCS_YCbCr:
        jpeg_.out_color_space = JCS_EXT_RGBA;
        break;
      case JCS_CMYK:
      case JCS_YCCK:
        jpeg_.out_color_space = JCS_CMYK;
        break;
      default:
        throw DecodeError("JPEG: unknown colour space");
    }
    if (scans_ > most_scans(jpeg_)) throw DecodeError(std::string("JPEG: ") + kTooManyScans);
    jpeg_.do_block_smoothing = FALSE;  // how it guesses pixels differs between versions of the library
  }

  DecodeError failure() const { return DecodeError(std::string("JPEG: ") + state_->message.data()); }

  std::unique_ptr<JpegState> state_;
  jpeg_decompress_struct jpeg_{};
  std::uint64_t scans_ = 0;
  bool started_ = false;
};

}  // namespace

std::unique_ptr<RasterDecoder> open_jpeg_decoder(ByteReader reader) {
  return std::make_unique<JpegDecoder>(std::move(reader));
}

}  // namespace nvo
