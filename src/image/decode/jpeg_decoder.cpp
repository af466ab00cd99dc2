#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>  // jpeglib.h takes FILE as given
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include <jerror.h>
#include <jpeglib.h>

#include "core/checked.h"
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
  /// Up to `count` of the next bytes.
  std::vector<std::uint8_t> take(std::size_t count) {
    std::vector<std::uint8_t> taken;
    taken.reserve(count);
    while (taken.size() < count && fill()) {
      const std::size_t here = std::min(count - taken.size(), block_.size());
      taken.insert(taken.end(), block_.begin(), block_.begin() + static_cast<std::ptrdiff_t>(here));
      skip(here);
    }
    return taken;
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

/// What a file's markers tell without decoding.
struct JpegOutline {
  std::uint64_t scans = 0;  ///< 1 for a sequential file that begins with a scan of all its components
  bool has_profile = false;
  ExifFacts exif;
};

/// Takes the segment of an APP marker, `size` bytes long.
void read_application_segment(MarkerWalk& walk, int code, std::size_t size, JpegOutline& outline) {
  constexpr int kExif = JPEG_APP0 + 1, kProfile = JPEG_APP0 + 2;
  constexpr std::string_view kExifMark("Exif\0", 5), kProfileMark("ICC_PROFILE\0", 12);
  if (code != kExif && code != kProfile) return walk.skip(size);
  const std::vector<std::uint8_t> segment = walk.take(size);
  const std::string_view text(reinterpret_cast<const char*>(segment.data()), segment.size());
  if (code == kExif && text.starts_with(kExifMark)) outline.exif = read_exif(segment);
  if (code == kProfile && text.starts_with(kProfileMark)) outline.has_profile = true;
}

/// Leaves the reader anywhere.
JpegOutline read_outline(ByteReader& reader) {
  constexpr int kFrames = 0xC0, kLastSequential = 0xC1, kStartOfImage = 0xD8, kStartOfScan = 0xDA;
  constexpr int kLastApplication = JPEG_APP0 + 15;
  constexpr std::size_t kBeforeComponents = 5;  // precision, height and width of a frame
  MarkerWalk walk(reader);
  JpegOutline outline;
  int frame = -1, frame_components = 0;
  for (int code = walk.next_marker(); code >= 0 && code != JPEG_EOI; code = walk.next_marker()) {
    if (code < kFrames || (code >= JPEG_RST0 && code <= kStartOfImage)) continue;  // markers without a length
    const int high = walk.next(), low = walk.next();
    std::size_t left = high < 0 || low < 0 ? 0 : static_cast<std::size_t>(high << 8 | low);
    if (left < 2) return outline;
    left -= 2;
    if (code <= kLastSequential && left > kBeforeComponents) {
      walk.skip(kBeforeComponents);
      frame = code;
      frame_components = walk.next();
      left -= kBeforeComponents + 1;
    } else if (code == kStartOfScan && left > 0) {
      ++outline.scans;
      const int components = walk.next();
      --left;
      if (outline.scans == 1 && frame >= 0 && components == frame_components) return outline;
    } else if (code >= JPEG_APP0 && code <= kLastApplication && outline.scans == 0) {
      read_application_segment(walk, code, left, outline);
      left = 0;
    }
    walk.skip(left);
  }
  return outline;
}

/// What libjpeg's callbacks see. They must not throw.
struct JpegState {
  explicit JpegState(ByteReader opened) : reader(std::move(opened)) {}
  ~JpegState() { jpeg_destroy_decompress(&jpeg); }
  JpegState(const JpegState&) = delete;
  JpegState& operator=(const JpegState&) = delete;

  jpeg_decompress_struct jpeg{};
  jpeg_error_mgr errors{};
  jpeg_source_mgr source{};
  jpeg_progress_mgr progress{};
  std::jmp_buf failed{};
  bool multi_scan = false, out_of_memory = false;
  const JOCTET* block_begin = nullptr;          ///< what libjpeg has in hand begins here
  std::array<char, JMSG_LENGTH_MAX> message{};  ///< of the error
  std::array<char, JMSG_LENGTH_MAX> doubt{};    ///< of the first message about damage without an error
  ByteReader reader;
};

JpegState& state_of(j_common_ptr jpeg) {
  return *static_cast<JpegState*>(jpeg->client_data);
}

[[noreturn]] void on_error(j_common_ptr jpeg) {
  JpegState& state = state_of(jpeg);
  const int code = jpeg->err->msg_code;
  if (code == JERR_OUT_OF_MEMORY || code == JERR_NO_BACKING_STORE) state.out_of_memory = true;
  jpeg->err->format_message(jpeg, state.message.data());
  std::longjmp(state.failed, 1);
}

[[noreturn]] void fail(j_common_ptr jpeg, const char* text) {
  JpegState& state = state_of(jpeg);
  std::snprintf(state.message.data(), state.message.size(), "%s", text);
  std::longjmp(state.failed, 1);
}

/// Filler of zeros, which some cameras leave in front of a marker, is no damage.
bool are_zeros_before_marker(const JpegState& state, int count) {
  const JOCTET* end = state.source.next_input_byte;
  const auto here = std::min<std::ptrdiff_t>(count, end - state.block_begin);
  return std::all_of(end - here, end, [](JOCTET byte) { return byte == 0; });
}

/// libjpeg goes on with gray areas where data is missing or wrong; such warnings end the decoding here.
/// Others may have changed pixels: bytes that no block wanted, scans out of order, colours of a kind that it
/// guesses. The rest (an odd version, odd parameters of a scan that has only one meaning) costs nothing.
void on_message(j_common_ptr jpeg, int level) {
  constexpr int kPixelLosses[] = {JWRN_HIT_MARKER, JWRN_HUFF_BAD_CODE, JWRN_MUST_RESYNC};
  constexpr int kDoubts[] = {JWRN_EXTRANEOUS_DATA, JWRN_BOGUS_PROGRESSION, JWRN_ADOBE_XFORM};
  const int code = jpeg->err->msg_code;
  if (level >= 0) return;
  if (std::ranges::find(kPixelLosses, code) != std::end(kPixelLosses)) on_error(jpeg);
  if (std::ranges::find(kDoubts, code) == std::end(kDoubts)) return;
  JpegState& state = state_of(jpeg);
  if (state.doubt[0] != 0) return;
  if (code == JWRN_EXTRANEOUS_DATA && are_zeros_before_marker(state, jpeg->err->msg_parm.i[0])) return;
  jpeg->err->format_message(jpeg, state.doubt.data());
}

void on_output(j_common_ptr) {}

std::uint64_t most_scans(const jpeg_decompress_struct& jpeg) {
  const std::uint64_t pixels = std::uint64_t{jpeg.image_width} * jpeg.image_height;
  return std::clamp(kMaxScannedPixels / pixels, kMaxScansOfAnySize, kMaxScans);
}

/// For files in which `read_outline` went astray.
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
  state.block_begin = state.source.next_input_byte = block.data();
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

void connect(JpegState& state) {
  jpeg_decompress_struct& jpeg = state.jpeg;
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
  explicit JpegDecoder(ByteReader reader)
      : state_(std::make_unique<JpegState>(std::move(reader))), jpeg_(state_->jpeg) {
    outline_ = read_outline(state_->reader);
    state_->reader.seek(0);
    connect(*state_);
    require(read_header());
  }

  /// Of the largest component, since a file may come without the others.
  ImageClaim claim() const override {
    constexpr std::uint64_t kAnything = std::numeric_limits<std::uint64_t>::max();
    if (jpeg_.arith_code) return {0, kAnything};  // refused for another reason
    std::uint64_t blocks = 0;
    for (const jpeg_component_info& part : std::span(jpeg_.comp_info, jpeg_.num_components))
      blocks = std::max(blocks, std::uint64_t{part.width_in_blocks} * part.height_in_blocks);
    const auto possible = checked_product(state_->reader.size(), kBlocksPerByte * DCTSIZE2);
    return {blocks * DCTSIZE2, possible.value_or(kAnything)};
  }

  void read_row(std::uint8_t* rgba) override {
    require(guarded(*state_, [&] {
      if (!started_) jpeg_start_decompress(&jpeg_);
      started_ = true;
      jpeg_read_scanlines(&jpeg_, &rgba, 1);
    }));
    if (jpeg_.out_color_space == JCS_CMYK) cmyk_to_rgba(rgba, info_.width, jpeg_.saw_Adobe_marker);
    if (jpeg_.output_scanline == jpeg_.output_height) read_to_end();
    tell_doubt();
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

  /// Data that is left over shows that some before it was misread. All rows are there, so that an error
  /// behind them is none.
  void read_to_end() {
    if (guarded(*state_, [&] { jpeg_finish_decompress(&jpeg_); })) return;
    state_->reader.require_sound();
    if (state_->out_of_memory) throw std::bad_alloc();
  }

  void tell_doubt() {
    if (doubt_is_told_ || state_->doubt[0] == 0) return;
    warn_of_art(state_->reader.path(),
                std::string("it is damaged, and the film may differ from what it should show: ") +
                    state_->doubt.data());
    doubt_is_told_ = true;
  }

  void describe() {
    info_.format = "JPEG";
    info_.width = jpeg_.image_width;
    info_.height = jpeg_.image_height;
    info_.needs_whole_frame = state_->multi_scan;
    info_.has_profile = outline_.has_profile;
    info_.orientation = outline_.exif.orientation;
    const UINT8 unit = jpeg_.density_unit;
    const bool stated = unit == kDensityPerInch || unit == kDensityPerCm;
    const bool may_differ = jpeg_.X_density == 0 && outline_.exif.dpi_x > 0.0;
    if (jpeg_.saw_JFIF_marker && stated && !may_differ) {
      const double per_inch = unit == kDensityPerCm ? kCmPerInch : 1.0;
      info_.dpi_x = jpeg_.X_density * per_inch;
      info_.dpi_y = jpeg_.Y_density * per_inch;
    } else {
      info_.dpi_x = outline_.exif.dpi_x;
      info_.dpi_y = outline_.exif.dpi_y;
    }
  }

  void prepare() override {
    // Its codes have no least length, so that no size could be doubted; other readers refuse it too.
    if (jpeg_.arith_code) throw DecodeError("JPEG: arithmetic coding is not supported");
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
    if (outline_.scans > most_scans(jpeg_)) throw DecodeError(std::string("JPEG: ") + kTooManyScans);
    jpeg_.do_block_smoothing = FALSE;  // how it guesses pixels differs between versions of the library
  }

  /// Throws what the failure means; a success after a failed read is none.
  void require(bool done) const {
    state_->reader.require_sound();
    if (done) return;
    if (state_->out_of_memory) throw std::bad_alloc();
    throw DecodeError(std::string("JPEG: ") + state_->message.data());
  }

  std::unique_ptr<JpegState> state_;
  jpeg_decompress_struct& jpeg_;  // of the state
  JpegOutline outline_;
  bool started_ = false, doubt_is_told_ = false;
};

}  // namespace

std::unique_ptr<RasterDecoder> open_jpeg_decoder(ByteReader reader) {
  return std::make_unique<JpegDecoder>(std::move(reader));
}

}  // namespace nvo
