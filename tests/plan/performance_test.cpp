#include "plan/performance.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

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
RipPerformance automatic(TriState setting = kAuto) {
  RipPerformance block;
  block.parallel_channels = block.parallel_rows = setting;
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
  EXPECT_EQ(block.sheet_threads, 8u);
  EXPECT_EQ(block.channel_threads, 5u);
  EXPECT_EQ(block.row_threads, 64u);
  EXPECT_EQ(block.max_concurrent_jobs, 3u);
  EXPECT_EQ(block.autotune_inputs.workload, "synthetic_large");
  EXPECT_EQ(block.autotune_inputs.preset, "smoke");
  EXPECT_EQ(block.autotune_inputs.qty, 1u);
  const RipPerformance untouched = normalize_performance({}, 6);
  EXPECT_EQ(untouched.sheet_threads + untouched.channel_threads + untouched.row_threads, 0u);
}

TEST(ChannelThreads, AutoAndManual) {
  EXPECT_EQ(channel_threads(1, {}), 2u);
  EXPECT_EQ(channel_threads(64, {}), 5u);
  EXPECT_EQ(channel_threads(4, manual()), 4u);
  EXPECT_EQ(channel_threads(1, manual(kAuto, 9)), 5u);
  EXPECT_EQ(channel_threads(8, manual(kAuto, 1)), 1u);
}

TEST(ParallelChannels, EnvironmentThenSettingsThenWorkload) {
  const auto uses = [](std::optional<std::string> word, const RipPerformance& block, bool auto_enabled,
                       std::uint64_t workload, std::uint32_t threads = 2) {
    RipPerformanceEnv env;
    env.parallel_channels = std::move(word);
    return use_parallel_channels(auto_enabled, workload, 1'000'000, threads, env, block);
  };
  const auto unset = std::nullopt;
  EXPECT_TRUE(uses("force", manual(kOff), false, 1));
  EXPECT_FALSE(uses("disable", manual(kOn), true, 9'000'000));
  EXPECT_TRUE(uses("maybe", automatic(), true, 1'000'000));
  EXPECT_FALSE(uses(unset, automatic(), true, 999'999));
  EXPECT_FALSE(uses(unset, automatic(), false, 9'000'000));
  EXPECT_TRUE(uses(unset, automatic(kOff), true, 9'000'000));
  EXPECT_TRUE(uses(unset, manual(kOn), false, 1));
  EXPECT_FALSE(uses(unset, manual(kOff), true, 9'000'000));
  EXPECT_TRUE(uses(unset, manual(), true, 9'000'000));
  EXPECT_FALSE(uses(unset, manual(kOn, 1), true, 9'000'000, 1));
}

TEST(RowThreads, RulesInOrder) {
  struct Case {
    std::uint64_t rows, row_bytes;
    std::optional<std::string> parallel_rows, row_threads;
    RipPerformance block;
    std::uint32_t expected;
  };
  const auto unset = std::nullopt;
  const Case cases[] = {
      {1, 1'000'000, "force", unset, {}, 1},
      {100, 0, "force", unset, {}, 1},
      {100, 10'000, "off", "9", manual(kOn, 9), 1},
      {3, 1, "on", "9", {}, 3},
      {1000, 1, "on", "99", {}, 64},
      {1000, 1, "on", "0", {}, 4},
      {1000, 1, unset, unset, manual(kOff, 9), 1},
      {1000, 1, unset, unset, manual(kAuto, 99), 64},
      {1000, 1, unset, unset, manual(kOn), 4},
      {63, 1'000'000, unset, unset, {}, 1},
      {64, 4095, unset, unset, {}, 1},
      {64, 4096, unset, "3", {}, 3},
      {47, 1'000'000, unset, "3", {}, 1},
      {100, ~0ull, unset, unset, {}, 4},
      {6144, 15840, unset, unset, manual(), 4},
  };
  for (const Case& c : cases) {
    RipPerformanceEnv env;
    env.parallel_rows = c.parallel_rows, env.row_threads = c.row_threads;
    EXPECT_EQ(row_threads(c.rows, c.row_bytes, 4, env, c.block), c.expected) << &c - cases;
  }
  EXPECT_EQ(row_threads(6144, 15840, 1, {}, {}), 2u);
  EXPECT_EQ(row_threads(6144, 15840, 64, {}, {}), 8u);

  // Five callers on so many cores.
  const auto shared = [](std::uint32_t hw, const RipPerformanceEnv& env, const RipPerformance& block) {
    return shared_row_threads(5, 6144, 15840, hw, env, block);
  };
  RipPerformanceEnv asked;
  asked.row_threads = "3";
  EXPECT_EQ(shared(2, {}, {}), 1u);
  EXPECT_EQ(shared(8, {}, {}), 2u);
  EXPECT_EQ(shared(64, {}, {}), 8u);
  EXPECT_EQ(shared(2, asked, {}), 3u);
  EXPECT_EQ(shared(2, {}, manual(kOn)), 2u);
  EXPECT_EQ(shared(8, {}, manual(kOff)), 1u);
}

}  // namespace
}  // namespace nvo
