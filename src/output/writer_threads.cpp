#include "output/writer_threads.h"

#include <algorithm>

#include "core/platform/environment.h"
#include "plan/performance.h"

namespace nvo {
namespace {

constexpr std::uint32_t kMaxAskedThreads = 32;
constexpr std::uint32_t kMinThreads = 2;
constexpr std::uint32_t kMaxThreads = 12;
constexpr std::uint32_t kLargeStripRows = 512;
constexpr std::uint64_t kLargeStripBytes = 0x1000000;
constexpr std::uint32_t kMinRowsPerThread = 128;

}  // namespace

WriterThreadEnv WriterThreadEnv::snapshot() {
  return {platform::environment("NVO_RIP_PARALLEL_WRITER_ROWS"),
          platform::environment("NVO_RIP_WRITER_THREADS")};
}

std::uint32_t writer_threads(std::uint32_t rows, std::uint32_t cycle_len, std::uint32_t hw,
                             const WriterThreadEnv& env) {
  const std::optional<bool> forced = parse_switch(env.parallel_rows);
  if (rows < 2 || forced == false) return 1;

  const std::optional<std::uint32_t> asked = parse_thread_count(env.threads);
  std::uint32_t threads =
      asked ? std::min(*asked, kMaxAskedThreads) : std::clamp(hw, kMinThreads, kMaxThreads);
  if (!forced) {
    if (rows < kLargeStripRows || std::uint64_t{cycle_len} * rows < kLargeStripBytes) return 1;
    threads = std::min(threads, rows / kMinRowsPerThread);
  }
  return std::clamp(threads, 1u, rows);
}

}  // namespace nvo
