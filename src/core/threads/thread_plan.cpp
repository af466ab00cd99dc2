#include "core/threads/thread_plan.h"

#include <algorithm>
#include <thread>

namespace nvo {
namespace {

constexpr std::uint32_t kFallbackThreads = 2;
/// What a stage takes of the machine by itself.
constexpr std::uint32_t kMinOwnThreads = 2;
constexpr std::uint32_t kMaxOwnRowThreads = 8;
constexpr std::uint32_t kMaxOwnThreads = 12;

constexpr std::uint64_t kLargeStageRows = 64;
constexpr std::uint64_t kLargeStageBytes = 262144;
constexpr std::uint64_t kMinRowsPerThread = 16;
constexpr std::uint64_t kLargeCompositionPixels = 0x80000;
constexpr std::uint32_t kLargeStripRows = 512;
constexpr std::uint64_t kLargeStripBytes = 0x1000000;
constexpr std::uint32_t kMinPackedRowsPerThread = 128;

StageThreads own_threads(std::uint32_t hardware, std::uint32_t most) {
  return {.limit = std::clamp(hardware, kMinOwnThreads, most)};
}

std::uint32_t cut_to(std::uint64_t work, std::uint32_t threads) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(work, threads));
}

}  // namespace

std::uint32_t hardware_threads() {
  const unsigned count = std::thread::hardware_concurrency();
  return count != 0 ? count : kFallbackThreads;
}

ThreadPlan::ThreadPlan(std::uint32_t machine_threads)
    : hardware(machine_threads),
      channels(own_threads(hardware, kMaxChannelThreads)),
      rows(own_threads(hardware, kMaxOwnRowThreads)),
      compose(own_threads(hardware, kMaxOwnThreads)),
      writer(own_threads(hardware, kMaxOwnThreads)) {}

bool ThreadPlan::use_parallel_channels(bool auto_enabled, std::uint64_t workload_px,
                                       std::uint64_t min_pixels) const {
  if (channels.division != WorkDivision::if_large) return channels.division == WorkDivision::always;
  return auto_enabled && channels.limit >= 2 && workload_px >= min_pixels;
}

std::uint32_t ThreadPlan::row_threads(std::uint64_t row_count, std::uint64_t row_bytes) const {
  if (row_count < 2 || row_bytes == 0 || rows.division == WorkDivision::never) return 1;
  if (rows.division == WorkDivision::always) return cut_to(row_count, rows.limit);
  const bool large =
      row_count >= kLargeStageRows && row_bytes >= (kLargeStageBytes + row_count - 1) / row_count;
  return large ? cut_to(row_count / kMinRowsPerThread, rows.limit) : 1;
}

std::uint32_t ThreadPlan::shared_row_threads(std::uint64_t row_count, std::uint64_t row_bytes) const {
  const std::uint32_t threads = row_threads(row_count, row_bytes);
  if (rows.limit_asked || side_by_side < 2) return threads;
  return std::min(threads, std::max((hardware + side_by_side - 1) / side_by_side, 1u));
}

std::uint32_t ThreadPlan::compose_threads(std::uint64_t tasks, std::uint64_t pixels) const {
  const bool divide = compose.division == WorkDivision::always ||
                      (compose.division == WorkDivision::if_large && pixels >= kLargeCompositionPixels);
  return tasks < 2 || !divide ? 1 : cut_to(tasks, compose.limit);
}

std::uint32_t ThreadPlan::writer_threads(std::uint32_t row_count, std::uint32_t cycle_len) const {
  if (row_count < 2 || writer.division == WorkDivision::never) return 1;
  if (writer.division == WorkDivision::always) return cut_to(row_count, writer.limit);
  const bool large = row_count >= kLargeStripRows && std::uint64_t{cycle_len} * row_count >= kLargeStripBytes;
  return large ? cut_to(row_count / kMinPackedRowsPerThread, writer.limit) : 1;
}

}  // namespace nvo
