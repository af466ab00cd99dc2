#include "plan/compose_threads.h"

#include <algorithm>

#include "core/platform/environment.h"
#include "plan/performance.h"

namespace nvo {
namespace {

constexpr std::uint64_t kParallelPixels = 0x80000;
constexpr std::uint32_t kMaxAskedThreads = 16;
constexpr std::uint32_t kMinOwnThreads = 2;
constexpr std::uint32_t kMaxOwnThreads = 12;

std::uint32_t thread_limit() {
  if (const auto asked = parse_thread_count(platform::environment("NVO_RIP_COMPOSE_THREADS")))
    return std::min(*asked, kMaxAskedThreads);
  return std::clamp(hardware_threads(), kMinOwnThreads, kMaxOwnThreads);
}

}  // namespace

std::uint32_t compose_threads(std::uint64_t tasks, std::uint64_t pixels) {
  if (tasks < 2) return 1;
  const auto forced = parse_switch(platform::environment("NVO_RIP_PARALLEL_COMPOSE_ITEMS"));
  const bool parallel = forced.value_or(pixels >= kParallelPixels);
  if (!parallel) return 1;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(tasks, thread_limit()));
}

}  // namespace nvo
