#pragma once

#include <cstdint>

#include "core/platform/clock.h"

namespace nvo {

/// Adds the nanoseconds of its own lifetime to a total.
class ScopedTimer {
 public:
  explicit ScopedTimer(std::uint64_t& total_ns)
      : total_ns_(total_ns), start_(platform::monotonic_nanoseconds()) {}
  ~ScopedTimer() { total_ns_ += platform::monotonic_nanoseconds() - start_; }
  ScopedTimer(const ScopedTimer&) = delete;
  ScopedTimer& operator=(const ScopedTimer&) = delete;

 private:
  std::uint64_t& total_ns_;
  std::uint64_t start_;
};

}  // namespace nvo
