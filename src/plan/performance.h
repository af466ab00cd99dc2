#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/rip_settings.h"

namespace nvo {

/// Raw texts of the environment variables that tune a run; nothing where a variable is not set.
struct RipPerformanceEnv {
  std::optional<std::string> parallel_sheets, sheet_threads, parallel_channels, parallel_rows, row_threads,
      max_concurrent_jobs;

  static RipPerformanceEnv snapshot();
};

/// The machine's hardware threads, or 2 if the system cannot tell.
std::uint32_t hardware_threads();

/// "1", "true", "on", "yes", "force" and "0", "false", "off", "no", "disable", in any case; nothing for
/// others.
std::optional<bool> parse_switch(const std::optional<std::string>& text);

/// A decimal number above 0, or nothing. Values beyond 32 bits count as the largest 32-bit value.
std::optional<std::uint32_t> parse_thread_count(const std::optional<std::string>& text);

/// Cuts every value of the block to the range in which it is used. `hw` 0 stands for the machine's own count.
RipPerformance normalize_performance(RipPerformance block, std::uint32_t hw);

/// Workers of the channel pool, 2 to 5 (1 only where a manual block asks for it).
std::uint32_t channel_threads(std::uint32_t hw, const RipPerformance& block);

/// Whether the five channels of a strip run side by side. `workload_px` counts device pixels of the sheet.
bool use_parallel_channels(bool auto_enabled, std::uint64_t workload_px, std::uint64_t min_pixels,
                           std::uint32_t hw, const RipPerformanceEnv& env, const RipPerformance& block);

/// Workers for a stage that divides `rows` rows of `row_bytes` bytes; at least 1.
std::uint32_t row_threads(std::uint64_t rows, std::uint64_t row_bytes, std::uint32_t hw,
                          const RipPerformanceEnv& env, const RipPerformance& block);

/// The same for each of `callers` threads that divide rows side by side: unless settings or environment ask
/// for row threads, all together keep to the hardware's.
std::uint32_t shared_row_threads(std::uint32_t callers, std::uint64_t rows, std::uint64_t row_bytes,
                                 std::uint32_t hw, const RipPerformanceEnv& env, const RipPerformance& block);

}  // namespace nvo
