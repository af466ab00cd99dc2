#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/threads/thread_plan.h"
#include "image/decode_failures.h"
#include "image/image_types.h"

namespace nvo {

/// A rectangle of source pixels.
struct RasterRegion {
  std::uint32_t x = 0, y = 0, width = 0, height = 0;
};

struct RasterReadStats {
  std::uint64_t row_reads = 0, region_reads = 0, full_decodes = 0;
};

/// Rows of one source image without the whole image in memory. Samples are 8 bits, interleaved, top row
/// first, `width` x `channel_count` bytes a row. One instance serves one thread at a time.
class RasterSource {
 public:
  virtual ~RasterSource() = default;

  virtual const ImageMeta& metadata() const = 0;
  virtual bool supports_row_reads() const = 0;
  /// How rows are obtained, for the log.
  virtual std::string read_strategy() const = 0;
  /// Fills `out`, whose memory is reused, with rows `y` .. `y + rows - 1`. False with a text in `error` (may
  /// be null) on failure; a bad file never throws, only a failure of the machine does.
  virtual bool read_rows(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                         std::string* error) = 0;
  /// The same for a rectangle.
  virtual bool read_region(const RasterRegion& region, std::vector<std::uint8_t>& out,
                           std::string* error) = 0;
  virtual RasterReadStats stats() const = 0;
};

/// What is known of a file's damage, and learns more while its rows are read.
using SharedFailures = std::shared_ptr<DecodeFailures>;

/// Opens a file by its extension. Throws when it cannot be opened or the extension is not supported.
/// Decoding divides its work by `threads`.
std::shared_ptr<RasterSource> make_raster_source(const std::string& path,
                                                 SharedFailures failures = std::make_shared<DecodeFailures>(),
                                                 const ThreadPlan& threads = ThreadPlan());

}  // namespace nvo
