#pragma once

#include <memory>
#include <string>

#include <tiffio.h>

namespace nvo {

/// A TIFF open for reading. What libtiff says about it goes to the log. For one thread at a time.
class TiffFile {
 public:
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

 private:
  struct SharedFile;
  struct Closer {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
  };

  template <class Open>
  static TiffFile open_with(const Open& open);
  void take_over_predictor();

  std::unique_ptr<SharedFile> shared_;  ///< of a second handle
  std::unique_ptr<TIFF, Closer> handle_;
  bool gives_differences_ = false;
};

}  // namespace nvo
