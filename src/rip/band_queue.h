#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "output/hoson_writer.h"

namespace nvo {

/// Screened rows of a strip on their way to the file.
struct StripBand {
  StripCycles cycles;
  std::uint32_t dev_y = 0;  ///< device row of its top row
};

/// Hands the bands of strips from the threads that screen them to the one that writes them, and their memory
/// back. The screening side waits while as many bands as the queue has room for are unwritten.
class BandQueue {
 public:
  explicit BandQueue(std::size_t room) : spent_(room) { filled_.reserve(room); }

  /// Memory for the next band. Throws `runtime_error` once the queue is closed.
  StripCycles take_spent();
  /// Never waits and never fails: there is room for each band whose memory was taken.
  void put(StripBand band) noexcept;
  /// Waits until so many rows have been written, or the writing side has given up.
  void wait_for_rows(std::uint64_t rows);
  /// A strip is going to be put in, band by band; and no band of it follows, whole or not.
  void begin_strip();
  void end_strip() noexcept;
  /// Waits for a band beyond the `known` rows that were put in, and returns how many rows there are then;
  /// nothing when the strip has ended.
  std::optional<std::uint64_t> wait_for_band(std::uint64_t known);
  /// No band follows.
  void finish() noexcept;

  /// The next band; none when there will be no more.
  std::optional<StripBand> take();
  /// The band was written.
  void give_back(StripCycles cycles);
  /// The writing side has given up.
  void close() noexcept;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<StripBand> filled_;  ///< in order
  std::vector<StripCycles> spent_;
  std::uint64_t rows_put_ = 0, rows_written_ = 0;
  bool in_strip_ = false, finished_ = false, closed_ = false;
};

}  // namespace nvo
