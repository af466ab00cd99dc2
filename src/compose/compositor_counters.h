#pragma once

#include <cstdint>
#include <mutex>

#include "core/platform/clock.h"

namespace nvo {

/// What composition did, for the run profile. Times are nanoseconds, summed over threads.
struct CompositorCounters {
  std::uint64_t strips = 0;
  std::uint64_t items_seen = 0;       ///< items selected for a strip
  std::uint64_t items_blitted = 0;    ///< of these, items that really meet it
  std::uint64_t lowmem_items = 0;     ///< served from rows of a source
  std::uint64_t full_load_items = 0;  ///< served from a whole image
  std::uint64_t pixels_written = 0;
  std::uint64_t blit_ns = 0;  ///< items as a whole
  std::uint64_t source_open_ns = 0;
  std::uint64_t source_read_ns = 0;
  std::uint64_t image_load_ns = 0;
  std::uint64_t icc_init_ns = 0;
  std::uint64_t white_classify_ns = 0;
  std::uint64_t white_classify_hits = 0;
  std::uint64_t white_classify_misses = 0;
  std::uint64_t color_convert_ns = 0;
  std::uint64_t white_underbase_ns = 0;
};

/// The counters of one compositor; any thread may add. Without profiling the clock is never read, and events
/// that only a profile asks for aren't counted.
class CounterBook {
 public:
  using Counter = std::uint64_t CompositorCounters::*;

  /// Before the first strip.
  void set_profiling(bool enabled) { profiling_ = enabled; }
  bool profiling() const { return profiling_; }

  void add(Counter counter, std::uint64_t amount) {
    const std::lock_guard lock(mutex_);
    counters_.*counter += amount;
  }
  void add_when_profiling(Counter counter, std::uint64_t amount) {
    if (profiling_) add(counter, amount);
  }
  void reset() {
    const std::lock_guard lock(mutex_);
    counters_ = {};
  }
  CompositorCounters read() const {
    const std::lock_guard lock(mutex_);
    return counters_;
  }

  /// Adds the time of a scope to a counter.
  class Timer {
   public:
    Timer(CounterBook& book, Counter counter)
        : book_(book), counter_(counter), start_(book.profiling_ ? platform::monotonic_nanoseconds() : 0) {}
    ~Timer() {
      if (book_.profiling_) book_.add(counter_, platform::monotonic_nanoseconds() - start_);
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

   private:
    CounterBook& book_;
    const Counter counter_;
    const std::uint64_t start_;
  };

 private:
  bool profiling_ = false;
  mutable std::mutex mutex_;
  CompositorCounters counters_;
};

}  // namespace nvo
