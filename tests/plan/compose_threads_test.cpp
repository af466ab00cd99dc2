#include "plan/compose_threads.h"

#include <gtest/gtest.h>

#include "support/scoped_variable.h"

namespace nvo {
namespace {

TEST(ComposeThreads, FollowTheEnvironmentAndTheWork) {
  const struct {
    const char *mode, *threads;
    std::uint64_t tasks, pixels;
    std::uint32_t at_least, at_most;
  } cases[] = {{nullptr, nullptr, 1, 1u << 30, 1, 1},
               {nullptr, "7", 40, 0x80000, 7, 7},
               {"auto", "7", 40, 0x7FFFF, 1, 1},
               {"bogus", "7", 3, 0x80000, 3, 3},
               {"FORCE", "99", 40, 1, 16, 16},
               {"Disable", "7", 40, 1u << 30, 1, 1},
               {"yes", "0", 40, 1, 2, 12},
               {"1", "many", 40, 1, 2, 12},
               {"1", "1", 40, 1, 1, 1}};
  for (const auto& c : cases) {
    const test::ScopedVariable mode("NVO_RIP_PARALLEL_COMPOSE_ITEMS", c.mode);
    const test::ScopedVariable count("NVO_RIP_COMPOSE_THREADS", c.threads);
    const std::uint32_t threads = compose_threads(c.tasks, c.pixels);
    EXPECT_TRUE(threads >= c.at_least && threads <= c.at_most) << threads << (c.mode ? c.mode : " unset");
  }
}

}  // namespace
}  // namespace nvo
