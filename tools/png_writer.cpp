#include "tools/png_writer.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <png.h>

namespace nvo {
namespace {

constexpr std::size_t kPendingBytes = 256u << 10;
constexpr int kCompressionLevel = 4;
constexpr double kInchesPerMetre = 1.0 / 0.0254;

// libpng leaves a failed call by a long jump. It may pass only functions that have nothing to destroy, such
// as these.

[[noreturn]] void jump_out(png_structp png, png_const_charp) {
  png_longjmp(png, 1);
}
void stay_silent(png_structp, png_const_charp) {}

bool write_header(png_structp png, png_infop info, std::uint32_t width, std::uint32_t height,
                  std::uint32_t pixels_per_metre) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_compression_level(png, kCompressionLevel);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_sRGB(png, info, PNG_sRGB_INTENT_RELATIVE);
  png_set_pHYs(png, info, pixels_per_metre, pixels_per_metre, PNG_RESOLUTION_METER);
  png_write_info(png, info);
  return true;
}

bool write_picture_row(png_structp png, const std::uint8_t* row) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_write_row(png, row);
  return true;
}

bool write_trailer(png_structp png) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_write_end(png, nullptr);
  return true;
}

std::uint32_t pixels_per_metre(double dpi) {
  return static_cast<std::uint32_t>(std::lround(std::fmin(dpi * kInchesPerMetre, PNG_UINT_31_MAX)));
}

}  // namespace

PngWriter::PngWriter(const std::string& path, std::uint32_t width, std::uint32_t height, double dpi)
    : path_(path) {
  try {
    begin(width, height, dpi);
  } catch (...) {
    discard();
    throw;
  }
}

void PngWriter::begin(std::uint32_t width, std::uint32_t height, double dpi) {
  pending_.reserve(kPendingBytes);
  failure_ = file_.begin(path_, 0);
  if (failure_) fail();
  png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, this, jump_out, stay_silent);
  info_ = png_ ? png_create_info_struct(png_) : nullptr;
  if (!info_) fail();
  png_set_write_fn(png_, this, take_bytes, nullptr);
  if (!write_header(png_, info_, width, height, pixels_per_metre(dpi))) fail();
}

void PngWriter::discard() noexcept {
  if (png_) png_destroy_write_struct(&png_, &info_);
  file_.give_up();
}

void PngWriter::take_bytes(png_structp png, unsigned char* data, std::size_t size) {
  auto& writer = *static_cast<PngWriter*>(png_get_io_ptr(png));
  while (size != 0) {
    const std::size_t piece = std::min(size, kPendingBytes - writer.pending_.size());
    writer.pending_.insert(writer.pending_.end(), data, data + piece);
    data += piece;
    size -= piece;
    if (writer.pending_.size() == kPendingBytes && !writer.write_pending()) png_error(png, "");
  }
}

bool PngWriter::write_pending() {
  failure_ = file_.append(pending_.data(), pending_.size());
  pending_.clear();
  return !failure_;
}

void PngWriter::fail() {
  throw std::runtime_error(path_ + ": cannot write the picture" +
                           (failure_ ? ": " + failure_->text() : std::string()));
}

void PngWriter::write_row(const std::uint8_t* rgb) {
  if (!write_picture_row(png_, rgb)) fail();
}

void PngWriter::finish() {
  if (!write_trailer(png_) || !write_pending()) fail();
  failure_ = file_.commit();
  if (failure_) fail();
}

}  // namespace nvo
