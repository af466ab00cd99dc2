#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/rip_settings.h"
#include "core/threads/thread_plan.h"

namespace nvo {

/// Raw texts of the environment variables that say how many threads a job uses; nothing where a variable is
/// not set.
struct RipPerformanceEnv {
  std::optional<std::string> parallel_sheets, sheet_threads, parallel_channels, parallel_rows, row_threads,
      max_concurrent_jobs, parallel_compose_items, compose_threads, parallel_writer_rows, writer_threads;

  static RipPerformanceEnv snapshot();
};

/// "1", "true", "on", "yes", "force" and "0", "false", "off", "no", "disable", in any case; nothing for
/// others.
std::optional<bool> parse_switch(const std::optional<std::string>& text);

/// A decimal number above 0, or nothing. Values beyond 32 bits count as the largest 32-bit value.
std::optional<std::uint32_t> parse_thread_count(const std::optional<std::string>& text);

/// Cuts every value of the block to the range in which it is used. `hw` 0 stands for the machine's own count.
RipPerformance normalize_performance(RipPerformance block, std::uint32_t hw);

/// The threads of a job on a machine of `hw` hardware threads: what the environment asks for goes above what
/// a manual block asks for, and that above what the machine and the work suggest.
ThreadPlan plan_threads(const RipPerformance& block, const RipPerformanceEnv& env,
                        std::uint32_t hw = hardware_threads());

}  // namespace nvo
