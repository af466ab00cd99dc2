#include "plan/performance.h"

#include <deque>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    return plan_threads(block, env, 2).use_parallel_channels(auto_enabled, workload, 1'000'000);
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
  EXPECT_FALSE(uses(unset, manual(kAuto, 1), true, 9'000'000));

  EXPECT_EQ(ThreadPlan(1).channel_threads(), 2u);
  EXPECT_EQ(ThreadPlan(64).channel_threads(), 5u);
  EXPECT_EQ(plan_threads(manual(kAuto, 9), {}, 1).channel_threads(), 5u);
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
    ThreadPlan plan = plan_threads(c.block, env, c.hw);
    plan.side_by_side = c.callers;
    EXPECT_EQ(plan.shared_row_threads(c.rows, c.row_bytes), c.expected) << &c - cases;
    if (c.callers < 2) {
      EXPECT_EQ(plan.row_threads(c.rows, c.row_bytes), c.expected) << &c - cases;
    }
  }
}

TEST(ComposeAndWriterThreads, FollowTheEnvironmentTheMachineAndTheWork) {
  const auto unset = std::nullopt;
  using Text = std::optional<std::string>;
  const struct {
    Text division, count;
    std::uint32_t hw;
    std::uint64_t tasks, pixels;
    std::uint32_t expected;
  } compositions[] = {{unset, unset, 8, 1, 1u << 30, 1},    {"1", "7", 8, 0, 1, 1},
                      {unset, "7", 8, 40, 0x80000, 7},      {"auto", "7", 8, 40, 0x7FFFF, 1},
                      {"bogus", "7", 8, 3, 0x80000, 3},     {"FORCE", "99", 8, 40, 1, 16},
                      {"Disable", "7", 8, 40, 1u << 30, 1}, {"yes", "0", 64, 40, 1, 12},
                      {"1", "many", 1, 40, 1, 2},           {"1", "1", 8, 40, 1, 1}};
  for (const auto& c : compositions) {
    RipPerformanceEnv env;
    env.parallel_compose_items = c.division, env.compose_threads = c.count;
    EXPECT_EQ(plan_threads({}, env, c.hw).compose_threads(c.tasks, c.pixels), c.expected)
        << &c - compositions;
  }
  const struct {
    std::uint32_t rows, cycle_len, hw;
    Text division, count;
    std::uint32_t expected;
  } strips[] = {{6144, 23760, 64, "auto", "0", 12},    {6144, 23760, 1, "", "four", 2},
                {6144, 23760, 8, "perhaps", "99", 32}, {511, 0x100000, 8, unset, unset, 1},
                {512, 0x8000, 8, unset, unset, 4},  // 16 MiB exactly, 128 rows a thread
                {512, 0x7FFF, 8, unset, unset, 1},     {6144, 23760, 8, "OFF", "8", 1},
                {10, 24, 8, "Yes", unset, 8},          {3, 24, 8, "1", "20", 3}};
  for (const auto& c : strips) {
    RipPerformanceEnv env;
    env.parallel_writer_rows = c.division, env.writer_threads = c.count;
    EXPECT_EQ(plan_threads({}, env, c.hw).writer_threads(c.rows, c.cycle_len), c.expected) << &c - strips;
  }
}

// Each variable reaches the stage that it is for.
TEST(RipPerformanceEnv, TakesEveryVariable) {
  const char* const names[] = {
      "NVO_RIP_PARALLEL_SHEETS",        "NVO_RIP_SHEET_THREADS",   "NVO_RIP_PARALLEL_CHANNELS",
      "NVO_RIP_PARALLEL_ROWS",          "NVO_RIP_ROW_THREADS",     "NVO_RIP_MAX_CONCURRENT_JOBS",
      "NVO_RIP_PARALLEL_COMPOSE_ITEMS", "NVO_RIP_COMPOSE_THREADS", "NVO_RIP_PARALLEL_WRITER_ROWS",
      "NVO_RIP_WRITER_THREADS"};
  std::deque<test::ScopedVariable> set;
  for (const char* name : names) set.emplace_back(name, name);
  const auto& [a, b, c, d, e, f, g, h, i, j] = RipPerformanceEnv::snapshot();
  EXPECT_THAT((std::vector{a, b, c, d, e, f, g, h, i, j}), testing::ElementsAreArray(names));
}

}  // namespace
}  // namespace nvo
