#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "output/hoson_writer.h"

namespace nvo {

/// Screened rows of a strip on their way to the file.
struct StripBand {
  StripCycles cycles;
  std::uint32_t dev_y = 0;  ///< device row of its top row
  bool ends_strip = false;  ///< nothing follows from this strip; it may have no rows
};

/// Hands the bands of strips from the thread that screens them to the one that writes them, and their memory
/// back. The screening thread waits while as many bands as the queue has room for are unwritten.
class BandQueue {
 public:
  explicit BandQueue(std::size_t room) : spent_(room) { filled_.reserve(room + 1); }

  /// Memory for the next band. Throws `runtime_error` once the queue is closed.
  StripCycles take_spent();
  /// Never waits and never fails: there is room for each band whose memory was taken, and for one without.
  void put(StripBand band) noexcept;

  StripBand take();
  void give_back(StripCycles cycles);

  /// The writing thread has given up.
  void close();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<StripBand> filled_;  ///< in order
  std::vector<StripCycles> spent_;
  bool closed_ = false;
};

}  // namespace nvo
