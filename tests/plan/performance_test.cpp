#include "plan/performance.h"

#include <vector>

#include <gtest/gtest.h>

namespace nvo {
namespace {

RipPerformance manual() {
  RipPerformance block;
  block.mode = PerformanceMode::manual;
  return block;
}

TEST(ParseSwitch, WordsInAnyCase) {
  for (const char* word : {"1", "TRUE", "On", "yes", "force"})
    EXPECT_EQ(parse_switch(std::string(word)), true) << word;
  for (const char* word : {"0", "false", "OFF", "no", "Disable"})
    EXPECT_EQ(parse_switch(std::string(word)), false);
  for (const char* word : {"", "auto", "maybe", "2", " on"})
    EXPECT_EQ(parse_switch(std::string(word)), std::nullopt);
  EXPECT_EQ(parse_switch(std::nullopt), std::nullopt);
}

TEST(ParseThreadCount, OnlyWholePositiveNumbers) {
  EXPECT_EQ(parse_thread_count("12"), 12u);
  EXPECT_EQ(parse_thread_count("99999999999999999999"), 4294967295u);
  for (const char* text : {"", "0", "-1", "+3", "4x", "x4", " 4", "1.5"})
    EXPECT_EQ(parse_thread_count(std::string(text)), std::nullopt) << text;
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
  RipPerformance block = manual();
  EXPECT_EQ(channel_threads(1, {}), 2u);
  EXPECT_EQ(channel_threads(64, {}), 5u);
  EXPECT_EQ(channel_threads(4, block), 4u);
  block.channel_threads = 9;
  EXPECT_EQ(channel_threads(1, block), 5u);
  block.channel_threads = 1;
  EXPECT_EQ(channel_threads(8, block), 1u);
}

TEST(ParallelChannels, EnvironmentThenSettingsThenWorkload) {
  struct Case {
    const char* env;
    TriState setting;
    bool is_manual, auto_enabled;
    std::uint64_t workload;
    bool expected;
  };
  const std::vector<Case> cases = {
      {"force", TriState::off, true, false, 1, true},
      {"disable", TriState::on, true, true, 9'000'000, false},
      {"maybe", TriState::automatic, false, true, 1'000'000, true},
      {nullptr, TriState::automatic, false, true, 999'999, false},
      {nullptr, TriState::automatic, false, false, 9'000'000, false},
      {nullptr, TriState::off, true, true, 9'000'000, false},
      {nullptr, TriState::on, true, false, 1, true},
      {nullptr, TriState::off, false, true, 9'000'000, true},
      {nullptr, TriState::automatic, true, true, 9'000'000, true},
  };
  for (const Case& c : cases) {
    RipPerformanceEnv env;
    if (c.env) env.parallel_channels = c.env;
    RipPerformance block = c.is_manual ? manual() : RipPerformance();
    block.parallel_channels = c.setting;
    EXPECT_EQ(use_parallel_channels(c.auto_enabled, c.workload, 1'000'000, 2, env, block), c.expected)
        << &c - cases.data();
  }
  RipPerformance single = manual();
  single.parallel_channels = TriState::on;
  single.channel_threads = 1;
  EXPECT_FALSE(use_parallel_channels(true, 9'000'000, 1, 8, {}, single));
}

TEST(RowThreads, RulesInOrder) {
  struct Case {
    std::uint64_t rows, row_bytes;
    const char* switch_text;
    const char* threads;
    bool is_manual;
    TriState setting;
    std::uint32_t row_threads, expected;
  };
  constexpr TriState kAuto = TriState::automatic, kOn = TriState::on, kOff = TriState::off;
  const std::vector<Case> cases = {
      {1, 1'000'000, "force", nullptr, false, kAuto, 0, 1},
      {100, 0, "force", nullptr, false, kAuto, 0, 1},
      {100, 10'000, "off", "9", true, kOn, 9, 1},
      {3, 1, "on", "9", false, kAuto, 0, 3},
      {1000, 1, "on", "99", false, kAuto, 0, 64},
      {1000, 1, "on", "0", false, kAuto, 0, 4},
      {1000, 1, nullptr, nullptr, true, kOff, 9, 1},
      {1000, 1, nullptr, nullptr, true, kAuto, 99, 64},
      {1000, 1, nullptr, nullptr, true, kOn, 0, 4},
      {63, 1'000'000, nullptr, nullptr, false, kAuto, 0, 1},
      {64, 4095, nullptr, nullptr, false, kAuto, 0, 1},
      {64, 4096, nullptr, nullptr, false, kAuto, 0, 4},
      {64, 4096, nullptr, "3", false, kAuto, 0, 3},
      {47, 1'000'000, nullptr, "3", false, kAuto, 0, 1},
      {100, ~0ull, nullptr, nullptr, false, kAuto, 0, 4},
      {6144, 15840, nullptr, nullptr, true, kAuto, 0, 4},
  };
  for (const Case& c : cases) {
    RipPerformanceEnv env;
    if (c.switch_text) env.parallel_rows = c.switch_text;
    if (c.threads) env.row_threads = c.threads;
    RipPerformance block = c.is_manual ? manual() : RipPerformance();
    block.parallel_rows = c.setting;
    block.row_threads = c.row_threads;
    EXPECT_EQ(row_threads(c.rows, c.row_bytes, 4, env, block), c.expected) << &c - cases.data();
  }
  EXPECT_EQ(row_threads(6144, 15840, 1, {}, {}), 2u);
  EXPECT_EQ(row_threads(6144, 15840, 64, {}, {}), 8u);
}

}  // namespace
}  // namespace nvo
