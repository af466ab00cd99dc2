#include <chrono>

#include <unistd.h>

#include "core/platform/clock.h"

namespace nvo::platform {

std::tm local_time(std::time_t time) {
  std::tm broken_down{};
  localtime_r(&time, &broken_down);
  return broken_down;
}

std::tm utc_time(std::time_t time) {
  std::tm broken_down{};
  gmtime_r(&time, &broken_down);
  return broken_down;
}

std::uint64_t monotonic_nanoseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

unsigned long process_id() {
  return static_cast<unsigned long>(::getpid());
}

}  // namespace nvo::platform
