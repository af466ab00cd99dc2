#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/pixel_spool.h"
#include "image/decode/raster_decoder.h"

namespace nvo {

/// Any rows of an image whose format gives them from the top only. The image is decoded once, as far down as
/// somebody has asked; decoded rows are kept in memory when the whole image is small, else in an unnamed
/// temporary file of width x height x 4 bytes, which the system's page cache serves. One thread at a time.
class SpooledRows {
 public:
  /// `decoder` is started and stands before its first row; `path` is for messages.
  SpooledRows(std::unique_ptr<RasterDecoder> decoder, std::string path);

  /// Copies `height` rows of `width` RGBA pixels; the rectangle lies within the image. Throws DecodeError
  /// when the file is damaged before the rectangle's last row. Where the temporary file can't be made or
  /// written, or has no room, throws a failure of the machine that names the folder and the bytes needed;
  /// where the file system can tell, before anything is decoded.
  void read(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t* out);

  /// Rows that the decoder has given.
  std::uint32_t rows_decoded() const { return rows_decoded_; }

 private:
  std::uint64_t image_bytes() const { return std::uint64_t{row_bytes_} * rows_; }
  void decode_to(std::uint32_t end);
  void append_rows(std::uint32_t count);
  void copy(std::uint64_t offset, std::size_t bytes, std::uint8_t* out) const;
  bool is_filed() const { return file_.has_value(); }

  std::string path_;
  std::unique_ptr<RasterDecoder> decoder_;  // null once it has given all rows
  std::size_t row_bytes_;
  std::uint32_t rows_;
  std::uint32_t rows_decoded_ = 0;
  std::uint32_t rows_done_ = 0;       // of them, where `copy` finds them
  std::vector<std::uint8_t> memory_;  // the image, or a block of rows on their way to the file
  std::optional<PixelSpool> file_;
};

}  // namespace nvo
