#include "image/tiff_file.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include "core/log.h"
#include "core/platform/file.h"
#include "image/tiff_predictor.h"

namespace nvo {
namespace {

constexpr std::size_t kMessageBytes = 512;

// Read calls instead of a mapping of the whole file: memory does not grow with the file, and a file that
// another program cuts short gives a read error instead of a bus error.
constexpr const char* kReadUnmapped = "rm";

/// 1 tells libtiff that nothing is left to print. No exception may cross the C library, and a line that
/// cannot be logged is no reason to fail a read.
int log_message(LogLevel level, const char* format, va_list arguments) noexcept {
  char text[kMessageBytes];
  static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
  try {
    Logger::instance().log(level, "libtiff: ", text);
  } catch (...) {
  }
  return 1;
}

int on_warning(TIFF*, void*, const char*, const char* format, va_list arguments) {
  return log_message(LogLevel::warn, format, arguments);
}

int on_error(TIFF*, void*, const char*, const char* format, va_list arguments) {
  return log_message(LogLevel::error, format, arguments);
}

/// libtiff's process-wide handlers print to the console. They see only what the handlers of a file do not:
/// messages of files opened without options.
void silence_default_handlers() {
  static const bool done = [] {
    TIFFSetWarningHandler(nullptr);
    TIFFSetErrorHandler(nullptr);
    return true;
  }();
  static_cast<void>(done);
}

/// Whether two handles see strips or tiles of one size: a file that is written anew between the two may hold
/// others, which buffers for the first are too small for.
bool same_pieces(TIFF* a, TIFF* b) {
  return TIFFIsTiled(a) == TIFFIsTiled(b) &&
         (TIFFIsTiled(a) ? TIFFTileSize(a) == TIFFTileSize(b) : TIFFStripSize(a) == TIFFStripSize(b));
}

}  // namespace

/// A file that another handle has opened, with a position of its own; the calls that libtiff makes on it.
struct TiffFile::SharedFile {
  int descriptor = -1;
  std::uint64_t size = 0;
  std::uint64_t position = 0;

  static tmsize_t read(thandle_t handle, void* data, tmsize_t size) {
    auto& file = *static_cast<SharedFile*>(handle);
    std::size_t done = 0;
    if (platform::read_at(file.descriptor, file.position, data, static_cast<std::size_t>(size), done) != 0)
      return -1;
    file.position += done;
    return static_cast<tmsize_t>(done);
  }
  static tmsize_t write(thandle_t, void*, tmsize_t) { return -1; }
  static toff_t seek(thandle_t handle, toff_t offset, int whence) {
    auto& file = *static_cast<SharedFile*>(handle);
    const std::uint64_t base = whence == SEEK_CUR ? file.position : whence == SEEK_END ? file.size : 0;
    return file.position = base + offset;
  }
  static toff_t tell_size(thandle_t handle) { return static_cast<SharedFile*>(handle)->size; }
  static int close(thandle_t) { return 0; }
};

TiffFile::TiffFile() = default;
TiffFile::TiffFile(TiffFile&&) noexcept = default;
TiffFile& TiffFile::operator=(TiffFile&&) noexcept = default;
TiffFile::~TiffFile() = default;

template <class Open>
TiffFile TiffFile::open_with(const Open& open) {
  silence_default_handlers();
  TiffFile file;
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  if (options) {
    TIFFOpenOptionsSetWarningHandlerExtR(options, on_warning, nullptr);
    TIFFOpenOptionsSetErrorHandlerExtR(options, on_error, nullptr);
  }
  open(file, options);
  TIFFOpenOptionsFree(options);
  if (file) file.take_over_predictor();
  return file;
}

TiffFile TiffFile::open(const std::string& path) {
  return open_with([&](TiffFile& file, TIFFOpenOptions* options) {
    file.handle_.reset(TIFFOpenExt(path.c_str(), kReadUnmapped, options));
  });
}

TiffFile TiffFile::second() const {
  const HeldLog unheard;  // the first handle has said it all
  TiffFile second = open_with([&](TiffFile& file, TIFFOpenOptions* options) {
    file.shared_ = std::make_unique<SharedFile>();
    file.shared_->descriptor = TIFFFileno(handle_.get());
    file.shared_->size = TIFFGetSizeProc(handle_.get())(TIFFClientdata(handle_.get()));
    file.handle_.reset(TIFFClientOpenExt(
        TIFFFileName(handle_.get()), kReadUnmapped, file.shared_.get(), SharedFile::read, SharedFile::write,
        SharedFile::seek, SharedFile::close, SharedFile::tell_size, nullptr, nullptr, options));
  });
  const bool same =
      second && second.gives_differences_ == gives_differences_ && same_pieces(get(), second.get());
  return same ? std::move(second) : TiffFile();
}

/// libtiff adds up differences sample by sample; a handle told that there are none leaves that to faster
/// code.
void TiffFile::take_over_predictor() {
  TIFF* const tiff = handle_.get();
  std::uint16_t predictor = PREDICTOR_NONE, bits = 0, samples = 1, planar = PLANARCONFIG_CONTIG;
  if (!TIFFGetField(tiff, TIFFTAG_PREDICTOR, &predictor) || predictor != PREDICTOR_HORIZONTAL) return;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
  if (bits != 8 || planar != PLANARCONFIG_CONTIG || !can_add_up(samples)) return;
  gives_differences_ = TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_NONE) == 1;
}

}  // namespace nvo
