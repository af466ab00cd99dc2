#include "image/tiff_file.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <utility>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/out_of_memory.h"
#include "core/platform/file.h"
#include "core/platform/input_file.h"
#include "image/tiff_predictor.h"

namespace nvo {
namespace {

constexpr std::size_t kMessageBytes = 512;

// Read calls instead of a mapping of the whole file: memory does not grow with the file, and a file that
// another program cuts short gives a read error instead of a bus error.
constexpr const char* kReadUnmapped = "rm";

/// A block that a header makes libtiff ask for fails above this as the file's own fault, not for want of
/// memory. Packed data of the largest piece has room even where packing makes it longer.
constexpr auto kMaxBlockBytes = static_cast<tmsize_t>(kMaxTiffPieceBytes + kMaxTiffPieceBytes / 8);

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

/// An open file, shared by its handles.
struct TiffFile::Source {
  platform::InputFile input;
  std::string path;
};

/// What a handle keeps beside libtiff's own record: its position in the file and the machine's failures that
/// it has met.
struct TiffFile::Handle {
  std::shared_ptr<const Source> source;
  std::uint64_t position = 0;
  int read_error = 0;  ///< the system's
  bool memory_ran_out = false;
  GuardedCall call;

  static Handle& of(void* user_data) { return *static_cast<Handle*>(user_data); }

  /// libtiff takes the allocator's null as it is. It has a message for nearly every place where it gets one,
  /// a warning at times, but the words differ and also serve for sizes that it will not ask for.
  void note_errno() { memory_ran_out |= errno == ENOMEM; }

  /// 1 tells libtiff that nothing is left to print. No exception may cross the C library.
  int log(LogLevel level, const char* format, va_list arguments) noexcept {
    note_errno();
    // It tells of some tables that it could not make, and then reads them.
    if (memory_ran_out) call.leave();
    char text[kMessageBytes];
    static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
    try {
      Logger::instance().log(level, "libtiff: ", text);
    } catch (const std::bad_alloc&) {
      memory_ran_out = true;
    } catch (...) {  // NOLINT: a line that cannot be logged is no reason to fail a read
    }
    return 1;
  }

  static int on_warning(TIFF*, void* user_data, const char*, const char* format, va_list arguments) {
    return of(user_data).log(LogLevel::warn, format, arguments);
  }
  static int on_error(TIFF*, void* user_data, const char*, const char* format, va_list arguments) {
    return of(user_data).log(LogLevel::error, format, arguments);
  }

  static tmsize_t read(thandle_t handle, void* data, tmsize_t size) {
    Handle& self = of(handle);
    std::size_t done = 0;
    const int error = self.source->input.read_at(self.position, data, static_cast<std::size_t>(size), done);
    if (error != 0) {
      self.read_error = error;
      return -1;
    }
    self.position += done;
    return static_cast<tmsize_t>(done);
  }
  static tmsize_t write(thandle_t, void*, tmsize_t) { return -1; }
  static toff_t seek(thandle_t handle, toff_t offset, int whence) {
    Handle& self = of(handle);
    const std::uint64_t base = whence == SEEK_CUR   ? self.position
                               : whence == SEEK_END ? self.source->input.size()
                                                    : 0;
    return self.position = base + offset;
  }
  static toff_t tell_size(thandle_t handle) { return of(handle).source->input.size(); }
  static int close(thandle_t) { return 0; }
};

TiffFile::TiffFile() = default;
TiffFile::TiffFile(TiffFile&&) noexcept = default;
TiffFile::~TiffFile() {
  close();
}

TiffFile& TiffFile::operator=(TiffFile&& other) noexcept {
  close();
  handle_ = std::move(other.handle_);
  state_ = std::move(other.state_);
  gives_differences_ = other.gives_differences_;
  return *this;
}

void TiffFile::close() noexcept {
  if (handle_ && state_->call.was_left()) static_cast<void>(handle_.release());  // the job ends anyway
  handle_.reset();
}

std::uint64_t TiffFile::size() const {
  return state_->source->input.size();
}

GuardedCall& TiffFile::begin_call() const {
  errno = 0;
  return state_->call;
}

void TiffFile::throw_machine_failure() const {
  state_->note_errno();
  const std::string& path = state_->source->path;
  if (state_->read_error != 0) fail_on_file("read", path, state_->read_error);
  if (state_->memory_ran_out) throw OutOfMemory("TiffReader: out of memory while reading '" + path + "'");
}

TiffFile TiffFile::open_source(std::shared_ptr<const Source> source) {
  silence_default_handlers();
  TiffFile file;
  file.state_ = std::make_unique<Handle>();
  file.state_->source = std::move(source);
  const std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions*)> options(TIFFOpenOptionsAlloc(),
                                                                             TIFFOpenOptionsFree);
  if (!options) throw OutOfMemory("TiffReader: out of memory for libtiff's options");
  Handle* const state = file.state_.get();
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), Handle::on_warning, state);
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), Handle::on_error, state);
  TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), kMaxBlockBytes);
  file.ask([&](TIFF*) {
    file.handle_.reset(TIFFClientOpenExt(state->source->path.c_str(), kReadUnmapped, state, Handle::read,
                                         Handle::write, Handle::seek, Handle::close, Handle::tell_size,
                                         nullptr, nullptr, options.get()));
    return file.handle_ != nullptr;
  });
  if (file) file.take_over_predictor();
  return file;
}

TiffFile TiffFile::open(const std::string& path) {
  const auto source = std::make_shared<Source>();
  source->path = path;
  const int error = source->input.open(path);
  if (error == 0) return open_source(source);
  if (!platform::tells_of_path(error)) fail_on_file("open", path, error);
  log_error("libtiff: ", path, ": ", platform::error_text(error));
  return {};
}

TiffFile TiffFile::second() const {
  const HeldLog unheard;  // the first handle has said it all
  TiffFile second = open_source(state_->source);
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
