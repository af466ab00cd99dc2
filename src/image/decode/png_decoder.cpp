#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include <png.h>

#include "core/checked.h"
#include "image/decode/png_chunks.h"
#include "image/decode/png_rows.h"
#include "image/decode/raster_decoder.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxDeflateRatio = 1032;  // 258 bytes from two codes of one bit each
constexpr png_uint_32 kAnySide = 0x7FFFFFFF;
constexpr double kInchesPerMetre = 0.0254;
constexpr std::uint64_t kChunkHeadBytes = 8;  // length and type

/// What libpng's callbacks see. They must not throw.
struct PngState {
  explicit PngState(ByteReader opened) : reader(std::move(opened)) {}
  ~PngState() { png_destroy_read_struct(&png, &info, nullptr); }
  PngState(const PngState&) = delete;
  PngState& operator=(const PngState&) = delete;

  ByteReader reader;
  png_structp png = nullptr;
  png_infop info = nullptr;
  bool out_of_memory = false, resolution_is_damaged = false;
  std::array<char, 128> message{};
};

/// libpng takes some of its failed allocations for a damaged chunk, so that they are noted here.
png_voidp on_malloc(png_structp png, png_alloc_size_t size) {
  void* memory = std::malloc(size);
  if (!memory) static_cast<PngState*>(png_get_mem_ptr(png))->out_of_memory = true;
  return memory;
}

void on_free(png_structp, png_voidp memory) {
  std::free(memory);
}

void on_error(png_structp png, png_const_charp text) {
  auto& message = static_cast<PngState*>(png_get_error_ptr(png))->message;
  std::snprintf(message.data(), message.size(), "%s", text);
  png_longjmp(png, 1);
}

/// Of the chunks that libpng reads and may drop, only the resolution shows on the film.
void on_warning(png_structp png, png_const_charp text) {
  if (std::string_view(text).starts_with("pHYs"))
    static_cast<PngState*>(png_get_error_ptr(png))->resolution_is_damaged = true;
}

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

/// 0 where a plain PNG can't be of this colour type.
std::size_t plain_samples(int color_type) {
  switch (color_type) {
    case PNG_COLOR_TYPE_GRAY:
      return 1;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      return 2;
    case PNG_COLOR_TYPE_RGB:
      return 3;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      return 4;
    default:
      return 0;
  }
}

/// Rows of plain files come from `PngRows` as long as nothing is the matter with the file. Then libpng, which
/// has been left where the pixels begin, catches up and goes on; it alone knows what damage is and what it is
/// called. All other files are libpng's from the start.
class PngDecoder final : public RasterDecoder {
 public:
  PngDecoder(ByteReader reader, bool by_libpng_alone)
      : state_(std::make_unique<PngState>(std::move(reader))) {
    const PngChunks chunks = scan_png_chunks(state_->reader);
    state_->reader.seek(0);
    png_ = png_create_read_struct_2(PNG_LIBPNG_VER_STRING, state_.get(), on_error, on_warning, state_.get(),
                                    on_malloc, on_free);
    state_->png = png_;
    if (png_) png_info_ = png_create_info_struct(png_);
    state_->info = png_info_;
    if (!png_info_) throw std::bad_alloc();
    require(read_header());
    info_.has_profile = chunks.has_profile;
    info_.has_transparency_chunk = chunks.has_transparency;
    info_.orientation = chunks.exif.orientation;
    info_.frames = chunks.frames;
    if (!chunks.has_srgb && !chunks.has_profile) info_.gamma = chunks.gamma / 100'000.0;
    info_.resolution_is_damaged = state_->resolution_is_damaged && !(info_.dpi_x > 0.0);
    drops_alpha_ = drops_alpha_ && !chunks.has_transparency;
    pixels_at_ = state_->reader.position();
    is_plain_ = !by_libpng_alone && !chunks.has_transparency && plain_.samples != 0;
  }

  ImageClaim claim() const override {
    constexpr std::uint64_t kAnything = std::numeric_limits<std::uint64_t>::max();
    return {checked_product(stored_row_bytes_, info_.height).value_or(kAnything),
            checked_product(state_->reader.size(), kMaxDeflateRatio).value_or(kAnything)};
  }

  void read_row(std::uint8_t* rgba) override {
    if (info_.needs_whole_frame) {
      if (!frame_) {
        frame_ = std::make_unique_for_overwrite<std::uint8_t[]>(row_bytes() * info_.height);
        decode_passes(frame_.get());
      }
      std::copy_n(frame_.get() + next_row_++ * row_bytes(), row_bytes(), rgba);
    } else if (!rows_ || !rows_->read_row(rgba)) {
      if (rows_) catch_up();
      require(guarded(png_, [&] { png_read_row(png_, rgba, nullptr); }));
      look_at_alpha(rgba, 1);
    }
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
      const bool with_alpha = (color_type & PNG_COLOR_MASK_ALPHA) != 0;
      info_.format = "PNG";
      info_.has_alpha = with_alpha && depth == 8;
      drops_alpha_ = with_alpha && depth == 16;
      info_.needs_whole_frame = interlace != PNG_INTERLACE_NONE;
      if (depth == 8 && !info_.needs_whole_frame) plain_.samples = plain_samples(color_type);

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
    require(guarded(png_, [&] {
      passes_ = png_set_interlace_handling(png_);
      png_read_update_info(png_, png_info_);
      if (png_get_rowbytes(png_, png_info_) != row_bytes()) png_error(png_, "unexpected pixel format");
    }));
    plain_.first_idat = pixels_at_ - kChunkHeadBytes;
    plain_.width = info_.width;
    plain_.height = info_.height;
    if (is_plain_ && PngRows::can_read(plain_)) rows_ = std::make_unique<PngRows>(state_->reader, plain_);
  }

  /// Hands the rest of the rows over to libpng.
  void catch_up() {
    const std::size_t given = rows_->rows_given();
    rows_.reset();
    state_->reader.seek(pixels_at_);
    require(guarded(png_, [&] {
      for (std::size_t y = 0; y < given; ++y) png_read_row(png_, nullptr, nullptr);
    }));
  }

  /// Each pass of an interlaced file adds pixels to all rows.
  void decode_passes(std::uint8_t* frame) {
    require(guarded(png_, [&] {
      for (int pass = 0; pass < passes_; ++pass)
        for (std::size_t y = 0; y < info_.height; ++y) png_read_row(png_, frame + y * row_bytes(), nullptr);
    }));
    look_at_alpha(frame, info_.height);
  }

  /// Throws what the failure means; a success after a failed allocation is none.
  void require(bool done) const {
    state_->reader.require_sound();
    if (state_->out_of_memory) throw std::bad_alloc();
    if (!done) throw DecodeError(std::string("PNG: ") + state_->message.data());
  }

  void look_at_alpha(const std::uint8_t* rgba, std::size_t rows) {
    for (std::size_t i = kRgbaBytes - 1; drops_alpha_ && i < rows * row_bytes(); i += kRgbaBytes) {
      if (rgba[i] == 0xFF) continue;
      warn_of_art(state_->reader.path(),
                  "it is transparent in places, but alpha of 16 bits is not used: the film has these places "
                  "as opaque art. Save it with 8 bits a channel to keep them transparent");
      drops_alpha_ = false;
    }
  }

  std::unique_ptr<PngState> state_;
  png_structp png_ = nullptr;  // of the state
  png_infop png_info_ = nullptr;
  std::size_t stored_row_bytes_ = 0;
  int passes_ = 1;
  std::uint64_t pixels_at_ = 0;  // where libpng stands in the file, behind the head of the first IDAT chunk
  PlainPng plain_;
  bool is_plain_ = false;
  std::unique_ptr<PngRows> rows_;          // null once libpng reads them
  std::unique_ptr<std::uint8_t[]> frame_;  // of an interlaced file
  std::size_t next_row_ = 0;               // of the frame
  bool drops_alpha_ = false;               // it is there and nobody has been told
};

}  // namespace

std::unique_ptr<RasterDecoder> open_png_decoder(ByteReader reader) {
  return std::make_unique<PngDecoder>(std::move(reader), false);
}

std::unique_ptr<RasterDecoder> open_libpng_decoder(ByteReader reader) {
  return std::make_unique<PngDecoder>(std::move(reader), true);
}

}  // namespace nvo
