#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/threads/started_work.h"
#include "image/image_types.h"

namespace nvo {

/// Decodes an image from its top to its bottom. One thread at a time.
class TopDownDecoder {
 public:
  virtual ~TopDownDecoder() = default;
  /// Writes the next `rows` rows in the form that the image's metadata describes. Throws what the file's
  /// damage or a failure of the machine is.
  virtual void read_rows(std::uint32_t rows, std::uint8_t* out) = 0;
};

/// The rows of an image can't be taken as they come: the file is damaged, has changed, or there is something
/// to tell of it. What was made of them has to be made anew by the ways that can tell.
struct RowStreamBroken : std::runtime_error {
  using runtime_error::runtime_error;
};

/// Rows of an image that is decoded once, from its top to its bottom, while they are used: kept are those of
/// one request and of the next, which is decoded on a thread of its own. One thread at a time. Besides
/// `RowStreamBroken` the functions throw failures of the machine; neither logs a line.
class RowStream {
 public:
  struct Rows {
    std::uint32_t begin = 0, end = 0;
  };

  RowStream(ImageMeta meta, std::unique_ptr<TopDownDecoder> decoder)
      : meta_(std::move(meta)), decoder_(std::move(decoder)) {}

  const ImageMeta& metadata() const { return meta_; }

  /// Swaps `out`, whose memory is reused, for rows `now`, and begins to decode what `next`, the request that
  /// follows, needs beyond them; it may be empty. No request begins above an earlier one, and all lie within
  /// the image.
  void read(const Rows& now, const Rows& next, std::vector<std::uint8_t>& out);

  /// Decodes the rows below the last request, since all rows of an image count as damaged if one is.
  void finish();

 private:
  std::size_t row_bytes() const { return std::size_t{meta_.width} * meta_.channel_count; }
  void advance_to(const Rows& rows);
  void decode(std::uint32_t rows, std::uint8_t* out);

  ImageMeta meta_;
  std::unique_ptr<TopDownDecoder> decoder_;
  std::vector<std::uint8_t> held_;  ///< rows `held_begin_` up to the last decoded one
  std::uint32_t held_begin_ = 0, decoded_ = 0;
  StartedWork<void> ahead_;  ///< fills `held_`; waits in its destructor, so it stands last
};

}  // namespace nvo
