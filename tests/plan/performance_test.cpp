#include "plan/performance.h"

#include <optional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "plan/compose_threads.h"
#include "support/scoped_variable.h"

namespace nvo {
namespace {

constexpr TriState kAuto = TriState::automatic, kOn = TriState::on, kOff = TriState::off;

RipPerformance manual(TriState setting = kAuto, std::uint32_t threads = 0) {
  RipPerformance block;
  block.mode = PerformanceMode::manual;
  block.parallel_channels = block.parallel_rows = setting;
  block.channel_threads = block.row_threads = threads;
  return block;
}

TEST(EnvironmentWords, SwitchesInAnyCaseAndWholePositiveNumbers) {
  for (const char* word : {"1", "TRUE", "On", "yes", "force"}) EXPECT_EQ(parse_switch(word), true) << word;
  for (const char* word : {"0", "false", "OFF", "no", "Disable"})
    EXPECT_EQ(parse_switch(word), false) << word;
  for (const char* word : {"", "auto", "2", " on"}) EXPECT_EQ(parse_switch(word), std::nullopt) << word;
  EXPECT_EQ(parse_switch(std::nullopt), std::nullopt);
  EXPECT_EQ(parse_thread_count("12"), 12u);
  EXPECT_EQ(parse_thread_count("99999999999999999999"), 4294967295u);
  for (const char* text : {"", "0", "-1", "+3", "4x", "x4", " 4", "1.5"})
    EXPECT_EQ(parse_thread_count(text), std::nullopt) << text;
}

TEST(Normalize, CutsToTheRangesInUse) {
  RipPerformance block;
  block.sheet_threads = block.channel_threads = block.row_threads = block.max_concurrent_jobs = 1000;
  block.autotune_inputs = {"Synthetic Large", "", "nonsense", 0};
  block = normalize_performance(block, 6);
  EXPECT_EQ(std::tuple(block.sheet_threads, block.channel_threads, block.row_threads), std::tuple(8, 5, 64));
  EXPECT_EQ(block.max_concurrent_jobs, 3u);
  const auto& [workload, folder, preset, qty] = block.autotune_inputs;
  EXPECT_EQ(std::tuple(workload, preset, qty), std::tuple("synthetic_large", "smoke", 1));
}

TEST(ParallelChannels, EnvironmentThenSettingsThenWorkload) {
  const auto uses = [](std::optional<std::string> word, const RipPerformance& block, bool auto_enabled,
                       std::uint64_t workload) {
    RipPerformanceEnv env;
    env.parallel_channels = std::move(word);
    return use_parallel_channels(auto_enabled, workload, 1'000'000, 2, env, block);
  };
  const auto unset = std::nullopt;
  RipPerformance ignored = manual(kOff);
  ignored.mode = PerformanceMode::automatic;
  EXPECT_TRUE(uses("force", manual(kOff), false, 1));
  EXPECT_FALSE(uses("disable", manual(kOn), true, 9'000'000));
  EXPECT_TRUE(uses("maybe", {}, true, 1'000'000));
  EXPECT_FALSE(uses(unset, {}, true, 999'999));
  EXPECT_FALSE(uses(unset, {}, false, 9'000'000));
  EXPECT_TRUE(uses(unset, ignored, true, 9'000'000));
  EXPECT_TRUE(uses(unset, manual(kOn), false, 1));
  EXPECT_FALSE(uses(unset, manual(kOff), true, 9'000'000));
  EXPECT_TRUE(uses(unset, manual(), true, 9'000'000));
  EXPECT_FALSE(uses(unset, manual(kOn, 1), true, 9'000'000));

  EXPECT_EQ(channel_threads(1, {}), 2u);
  EXPECT_EQ(channel_threads(64, {}), 5u);
  EXPECT_EQ(channel_threads(1, manual(kAuto, 9)), 5u);
}

TEST(RowThreads, RulesInOrder) {
  const auto unset = std::nullopt;
  const struct {
    std::uint32_t callers, hw;
    std::uint64_t rows, row_bytes;
    std::optional<std::string> parallel_rows, row_threads;
    RipPerformance block;
    std::uint32_t expected;
  } cases[] = {
      {1, 4, 1, 1'000'000, "force", unset, {}, 1},
      {1, 4, 100, 0, "force", unset, {}, 1},
      {1, 4, 100, 10'000, "off", "9", manual(kOn, 9), 1},
      {1, 4, 3, 1, "on", "9", {}, 3},
      {1, 4, 1000, 1, "on", "99", {}, 64},
      {1, 4, 1000, 1, "on", "0", {}, 4},
      {1, 4, 1000, 1, unset, unset, manual(kOff, 9), 1},
      {1, 4, 1000, 1, unset, unset, manual(kAuto, 99), 64},
      {1, 4, 1000, 1, unset, unset, manual(kOn), 4},
      {1, 4, 63, 1'000'000, unset, unset, {}, 1},
      {1, 4, 64, 4095, unset, unset, {}, 1},
      {1, 4, 64, 4096, unset, "3", {}, 3},
      {1, 4, 100, ~0ull, unset, unset, {}, 4},
      {1, 4, 6144, 15840, unset, unset, manual(), 4},
      {1, 1, 6144, 15840, unset, unset, {}, 2},
      {1, 64, 6144, 15840, unset, unset, {}, 8},
      {5, 2, 6144, 15840, unset, unset, {}, 1},
      {5, 8, 6144, 15840, unset, unset, {}, 2},
      {5, 64, 6144, 15840, unset, unset, {}, 8},
      {5, 2, 6144, 15840, unset, "3", {}, 3},
      {5, 2, 6144, 15840, unset, unset, manual(kOn), 2},
      {5, 8, 6144, 15840, unset, unset, manual(kOff), 1},
  };
  for (const auto& c : cases) {
    RipPerformanceEnv env;
    env.parallel_rows = c.parallel_rows, env.row_threads = c.row_threads;
    EXPECT_EQ(shared_row_threads(c.callers, c.rows, c.row_bytes, c.hw, env, c.block), c.expected)
        << &c - cases;
  }
}

TEST(ComposeThreads, FollowTheEnvironmentAndTheWork) {
  const struct {
    const char *mode, *threads;
    std::uint64_t tasks, pixels;
    std::uint32_t at_least, at_most;
  } cases[] = {{nullptr, nullptr, 1, 1u << 30, 1, 1}, {"1", "7", 0, 1, 1, 1},
               {nullptr, "7", 40, 0x80000, 7, 7},     {"auto", "7", 40, 0x7FFFF, 1, 1},
               {"bogus", "7", 3, 0x80000, 3, 3},      {"FORCE", "99", 40, 1, 16, 16},
               {"Disable", "7", 40, 1u << 30, 1, 1},  {"yes", "0", 40, 1, 2, 12},
               {"1", "many", 40, 1, 2, 12},           {"1", "1", 40, 1, 1, 1}};
  for (const auto& c : cases) {
    const test::ScopedVariable mode("NVO_RIP_PARALLEL_COMPOSE_ITEMS", c.mode);
    const test::ScopedVariable count("NVO_RIP_COMPOSE_THREADS", c.threads);
    const std::uint32_t threads = compose_threads(c.tasks, c.pixels);
    EXPECT_TRUE(threads >= c.at_least && threads <= c.at_most) << threads << (c.mode ? c.mode : " unset");
  }
}

}  // namespace
}  // namespace nvo
