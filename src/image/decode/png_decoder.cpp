#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include <png.h>

#include "core/checked.h"
#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxDeflateRatio = 1032;  // 258 bytes from two codes of one bit each
constexpr png_uint_32 kAnySide = 0x7FFFFFFF;
constexpr double kInchesPerMetre = 0.0254;

/// What libpng's callbacks see. They must not throw.
struct PngState {
  explicit PngState(ByteReader opened) : reader(std::move(opened)) {}

  ByteReader reader;
  std::array<char, 128> message{};
};

void on_error(png_structp png, png_const_charp text) {
  auto& message = static_cast<PngState*>(png_get_error_ptr(png))->message;
  std::snprintf(message.data(), message.size(), "%s", text);
  png_longjmp(png, 1);
}

void on_warning(png_structp, png_const_charp) {}

void on_read(png_structp png, png_bytep out, std::size_t count) {
  if (!static_cast<PngState*>(png_get_io_ptr(png))->reader.read_exactly(out, count))
    png_error(png, "the file ends early");
}

/// Runs calls of libpng; false when one failed. libpng leaves by longjmp, so `calls` may hold nothing that
/// has a destructor.
template <class Calls>
bool guarded(png_structp png, const Calls& calls) {
  if (setjmp(png_jmpbuf(png)) != 0) return false;
  calls();
  return true;
}

/// Everything but what makes pixels and pHYs is skipped unread: no chunk can take memory or time.
void ignore_other_chunks(png_structp png) {
  constexpr int kAllButPixels = -1;
  constexpr png_byte kPhys[] = "pHYs";
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, kAllButPixels);
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_AS_DEFAULT, kPhys, 1);
  png_set_chunk_malloc_max(png, 0);  // some builds of libpng refuse long chunks, even those they skip
}

/// Whatever the file has becomes 8-bit RGBA.
void transform_to_rgba(png_structp png, int color_type) {
  constexpr png_uint_32 kOpaque = 0xFF;
  png_set_expand(png);
  png_set_scale_16(png);
  if ((color_type & PNG_COLOR_MASK_COLOR) == 0) png_set_gray_to_rgb(png);
  png_set_add_alpha(png, kOpaque, PNG_FILLER_AFTER);
}

class PngDecoder final : public RasterDecoder {
 public:
  explicit PngDecoder(ByteReader reader) : state_(std::make_unique<PngState>(std::move(reader))) {
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, state_.get(), on_error, on_warning);
    if (png_) png_info_ = png_create_info_struct(png_);
    if (!png_info_) {
      png_destroy_read_struct(&png_, nullptr, nullptr);
      throw std::bad_alloc();
    }
    if (!read_header()) {
      const DecodeError error = failure();
      png_destroy_read_struct(&png_, &png_info_, nullptr);
      throw error;
    }
  }
  ~PngDecoder() override { png_destroy_read_struct(&png_, &png_info_, nullptr); }
  PngDecoder(const PngDecoder&) = delete;
  PngDecoder& operator=(const PngDecoder&) = delete;

  void read_row(std::uint8_t* rgba) override {
    if (info_.needs_whole_frame) {
      if (!frame_) {
        frame_ = std::make_unique_for_overwrite<std::uint8_t[]>(row_bytes() * info_.height);
        decode_passes(frame_.get());
      }
      std::copy_n(frame_.get() + next_row_++ * row_bytes(), row_bytes(), rgba);
      return;
    }
    if (!guarded(png_, [&] { png_read_row(png_, rgba, nullptr); })) throw failure();
  }

  void read_image(std::vector<std::uint8_t>& pixels) override {
    if (!info_.needs_whole_frame) return RasterDecoder::read_image(pixels);
    pixels.resize(row_bytes() * info_.height);
    decode_passes(pixels.data());
  }

 private:
  bool read_header() {
    return guarded(png_, [&] {
      png_set_read_fn(png_, state_.get(), on_read);
      png_set_user_limits(png_, kAnySide, kAnySide);
      ignore_other_chunks(png_);
      png_read_info(png_, png_info_);

      int depth = 0, color_type = 0, interlace = 0;
      png_get_IHDR(png_, png_info_, &info_.width, &info_.height, &depth, &color_type, &interlace, nullptr,
                   nullptr);
      info_.has_alpha = (color_type & PNG_COLOR_MASK_ALPHA) != 0 && depth == 8;
      info_.needs_whole_frame = interlace != PNG_INTERLACE_NONE;

      png_uint_32 x = 0, y = 0;
      int unit = PNG_RESOLUTION_UNKNOWN;
      png_get_pHYs(png_, png_info_, &x, &y, &unit);
      if (unit == PNG_RESOLUTION_METER) {
        info_.dpi_x = x * kInchesPerMetre;
        info_.dpi_y = y * kInchesPerMetre;
      }
      stored_row_bytes_ = png_get_rowbytes(png_, png_info_);
      transform_to_rgba(png_, color_type);
    });
  }

  void prepare() override {
    const auto stored = checked_product(stored_row_bytes_, info_.height);
    const auto held = checked_product(state_->reader.size(), kMaxDeflateRatio);
    if (!stored || !held || *stored > *held)
      throw DecodeError("PNG: the file is too short for its size in pixels");
    const bool started = guarded(png_, [&] {
      passes_ = png_set_interlace_handling(png_);
      png_read_update_info(png_, png_info_);
      if (png_get_rowbytes(png_, png_info_) != row_bytes()) png_error(png_, "unexpected pixel format");
    });
    if (!started) throw failure();
  }

  /// Each pass of an interlaced file adds pixels to all rows.
  void decode_passes(std::uint8_t* frame) {
    const bool decoded = guarded(png_, [&] {
      for (int pass = 0; pass < passes_; ++pass)
        for (std::size_t y = 0; y < info_.height; ++y) png_read_row(png_, frame + y * row_bytes(), nullptr);
    });
    if (!decoded) throw failure();
  }

  DecodeError failure() const { return DecodeError(std::string("PNG: ") + state_->message.data()); }

  std::unique_ptr<PngState> state_;
  png_structp png_ = nullptr;
  png_infop png_info_ = nullptr;
  std::size_t stored_row_bytes_ = 0;
  int passes_ = 1;
  std::unique_ptr<std::uint8_t[]> frame_;  // of an interlaced file
  std::size_t next_row_ = 0;               // of the frame
};

}  // namespace

std::unique_ptr<RasterDecoder> open_png_decoder(ByteReader reader) {
  return std::make_unique<PngDecoder>(std::move(reader));
}

}  // namespace nvo
