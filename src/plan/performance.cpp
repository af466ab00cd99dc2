#include "plan/performance.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>

#include "core/platform/environment.h"
#include "core/text.h"

namespace nvo {
namespace {

constexpr std::uint32_t kMaxSheetThreads = 8;
constexpr std::uint32_t kMaxConcurrentJobs = 8;

bool is_one_of(std::string_view text, std::initializer_list<std::string_view> words) {
  return std::find(words.begin(), words.end(), text) != words.end();
}

std::string canonical_workload(std::string_view text) {
  std::string token;
  for (const char c : text)
    if (c != ' ' && c != '_' && c != '-' && c != '.') token += ascii_lower(c);
  if (token == "syntheticsmall") return "synthetic_small";
  if (token == "syntheticlarge") return "synthetic_large";
  if (token == "custom") return "custom";
  return "synthetic_mix";
}

/// What the environment asks of a stage: a switch and a number.
void ask(StageThreads& stage, const std::optional<std::string>& word, const std::optional<std::string>& count,
         std::uint32_t most) {
  if (const auto asked = parse_thread_count(count)) {
    stage.limit = std::min(*asked, most);
    stage.limit_asked = true;
  }
  if (const auto forced = parse_switch(word)) {
    stage.division = *forced ? WorkDivision::always : WorkDivision::never;
    stage.limit_asked = true;
  }
}

void ask_channels(StageThreads& channels, const RipPerformance& block) {
  if (block.mode != PerformanceMode::manual) return;
  if (block.channel_threads != 0) channels.limit = block.channel_threads;
  if (block.parallel_channels == TriState::off) channels.division = WorkDivision::never;
  if (block.parallel_channels == TriState::on)
    channels.division = channels.limit >= 2 ? WorkDivision::always : WorkDivision::never;
}

/// A number of the block forces its rows apart and goes above the environment's number, not above its switch.
void ask_rows(StageThreads& rows, const RipPerformance& block, const RipPerformanceEnv& env) {
  ask(rows, env.parallel_rows, env.row_threads, kMaxRowThreads);
  if (block.mode != PerformanceMode::manual || rows.division != WorkDivision::if_large) return;
  if (block.parallel_rows == TriState::off) {
    rows.division = WorkDivision::never;
  } else if (block.row_threads != 0) {
    rows = {WorkDivision::always, block.row_threads, true};
  } else if (block.parallel_rows == TriState::on) {
    rows.division = WorkDivision::always;
    rows.limit_asked = true;
  }
}

}  // namespace

RipPerformanceEnv RipPerformanceEnv::snapshot() {
  using platform::environment;
  return {environment("NVO_RIP_PARALLEL_SHEETS"),
          environment("NVO_RIP_SHEET_THREADS"),
          environment("NVO_RIP_PARALLEL_CHANNELS"),
          environment("NVO_RIP_PARALLEL_ROWS"),
          environment("NVO_RIP_ROW_THREADS"),
          environment("NVO_RIP_MAX_CONCURRENT_JOBS"),
          environment("NVO_RIP_PARALLEL_COMPOSE_ITEMS"),
          environment("NVO_RIP_COMPOSE_THREADS"),
          environment("NVO_RIP_PARALLEL_WRITER_ROWS"),
          environment("NVO_RIP_WRITER_THREADS")};
}

std::optional<bool> parse_switch(const std::optional<std::string>& text) {
  const std::string word = ascii_lower(text.value_or(""));
  if (is_one_of(word, {"1", "true", "on", "yes", "force"})) return true;
  if (is_one_of(word, {"0", "false", "off", "no", "disable"})) return false;
  return std::nullopt;
}

std::optional<std::uint32_t> parse_thread_count(const std::optional<std::string>& text) {
  if (!text || text->empty()) return std::nullopt;
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (end != text->data() + text->size()) return std::nullopt;
  if (error == std::errc::result_out_of_range) return std::numeric_limits<std::uint32_t>::max();
  if (error != std::errc() || value == 0) return std::nullopt;
  return value;
}

RipPerformance normalize_performance(RipPerformance block, std::uint32_t hw) {
  const std::uint32_t jobs =
      std::min(std::max((hw != 0 ? hw : hardware_threads()) / 2, 1u), kMaxConcurrentJobs);
  block.sheet_threads = std::min(block.sheet_threads, kMaxSheetThreads);
  block.channel_threads = std::min(block.channel_threads, kMaxChannelThreads);
  block.row_threads = std::min(block.row_threads, kMaxRowThreads);
  block.max_concurrent_jobs = std::min(block.max_concurrent_jobs, jobs);
  block.autotune_inputs.workload = canonical_workload(block.autotune_inputs.workload);
  if (!is_one_of(block.autotune_inputs.preset, {"quick", "full"})) block.autotune_inputs.preset = "smoke";
  block.autotune_inputs.qty =
      std::clamp(block.autotune_inputs.qty, 1u, RipPerformance::AutotuneInputs::kMaxQty);
  return block;
}

ThreadPlan plan_threads(const RipPerformance& block, const RipPerformanceEnv& env, std::uint32_t hw) {
  const RipPerformance asked = normalize_performance(block, hw);
  ThreadPlan plan(hw);
  ask_channels(plan.channels, asked);
  ask(plan.channels, env.parallel_channels, std::nullopt, kMaxChannelThreads);
  ask_rows(plan.rows, asked, env);
  ask(plan.compose, env.parallel_compose_items, env.compose_threads, kMaxComposeThreads);
  ask(plan.writer, env.parallel_writer_rows, env.writer_threads, kMaxWriterThreads);
  return plan;
}

}  // namespace nvo
