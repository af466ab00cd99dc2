#pragma once

#include <cstdint>
#include <ctime>

namespace nvo::platform {

/// Broken-down time; safe to call from any thread.
std::tm local_time(std::time_t time);
std::tm utc_time(std::time_t time);

/// Nanoseconds of the system's monotonic clock.
std::uint64_t monotonic_nanoseconds();

/// Id of this process, for names of temporary files.
unsigned long process_id();

}  // namespace nvo::platform
