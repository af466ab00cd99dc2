#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <tiffio.h>

#include "core/log.h"

namespace nvo {

/// A TIFF open for reading and what libtiff says about it. Messages go to the log, or are held back: pieces
/// of a file that are decoded side by side then speak in the order of the file. For one thread at a time.
class TiffFile {
 public:
  using Message = std::pair<LogLevel, std::string>;

  TiffFile();
  TiffFile(TiffFile&&) noexcept;
  TiffFile& operator=(TiffFile&&) noexcept;
  ~TiffFile();

  /// Invalid where the file cannot be opened.
  static TiffFile open(const std::string& path);
  /// The same open file for another thread, with a position of its own in it; of no use once this one is
  /// closed. Invalid where that fails or the file is another by now, without a word in the log.
  TiffFile second() const;

  explicit operator bool() const { return handle_ != nullptr; }
  TIFF* get() const { return handle_.get(); }

  /// Rows come as stored, each sample the difference to that of the pixel before; `add_up_row` of
  /// tiff_predictor.h makes samples of them.
  bool gives_differences() const { return gives_differences_; }

  void hold_messages();
  /// The messages since `hold_messages`; from here on they go to the log again.
  std::vector<Message> take_messages();

 private:
  struct Messages;
  struct SharedFile;
  struct Closer {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
  };

  static int on_warning(TIFF*, void* messages, const char* module, const char* format, va_list arguments);
  static int on_error(TIFF*, void* messages, const char* module, const char* format, va_list arguments);
  template <class Open>
  static TiffFile open_with(const Open& open);
  void take_over_predictor();

  std::unique_ptr<Messages> messages_;
  std::unique_ptr<SharedFile> shared_;  ///< of a second handle
  std::unique_ptr<TIFF, Closer> handle_;
  bool gives_differences_ = false;
};

}  // namespace nvo
