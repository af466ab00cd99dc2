#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <tiffio.h>

#include "core/guarded_call.h"

namespace nvo {

/// A strip or tile that unpacks to more than this is refused; libtiff gets no block much larger either.
inline constexpr std::uint64_t kMaxTiffPieceBytes = std::uint64_t{2} << 30;

/// A TIFF open for reading. What libtiff says about it goes to the log. For one thread at a time.
class TiffFile {
 public:
  TiffFile();
  TiffFile(TiffFile&&) noexcept;
  TiffFile& operator=(TiffFile&&) noexcept;
  ~TiffFile();

  /// Invalid where there is no such file or it isn't a TIFF. Throws where the machine fails: `system_error`,
  /// `OutOfMemory`.
  static TiffFile open(const std::string& path);
  /// The same open file for another thread, with a position of its own in it. Invalid where the file is
  /// another by now, without a word in the log; throws as `open` does.
  TiffFile second() const;

  explicit operator bool() const { return handle_ != nullptr; }
  TIFF* get() const { return handle_.get(); }

  /// The result of `call(TIFF*)`, for calls of libtiff that read or allocate. It takes both kinds of failure
  /// for damage, drops a tag or goes on without one; here they are thrown, whatever the result. Where memory
  /// runs out the call may be left by a long jump: no object in it may need a destructor.
  template <class Call>
  auto ask(const Call& call) const {
    GuardedCall& guard = begin_call();
    const auto answer = guard.run([&] { return call(handle_.get()); });
    throw_machine_failure();
    return answer;
  }

  /// Bytes that the file had when it was opened.
  std::uint64_t size() const;

  /// Rows come as stored, each sample the difference to that of the pixel before; `add_up_row` of
  /// tiff_predictor.h makes samples of them.
  bool gives_differences() const { return gives_differences_; }

 private:
  struct Source;
  struct Handle;
  struct Closer {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
  };

  static TiffFile open_source(std::shared_ptr<const Source> source);
  GuardedCall& begin_call() const;
  void throw_machine_failure() const;
  void close() noexcept;
  void take_over_predictor();

  std::unique_ptr<Handle> state_;
  std::unique_ptr<TIFF, Closer> handle_;
  bool gives_differences_ = false;
};

}  // namespace nvo
