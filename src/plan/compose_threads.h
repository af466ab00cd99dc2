#pragma once

#include <cstdint>

namespace nvo {

/// Threads for `tasks` independent pieces of composition that make `pixels` pixels in all; at least 1. Small
/// work stays on one thread unless the environment forces it (NVO_RIP_PARALLEL_COMPOSE_ITEMS,
/// NVO_RIP_COMPOSE_THREADS).
std::uint32_t compose_threads(std::uint64_t tasks, std::uint64_t pixels);

}  // namespace nvo
