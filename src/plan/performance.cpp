#include "plan/performance.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <thread>

#include "core/platform/environment.h"
#include "core/text.h"

namespace nvo {
namespace {

constexpr std::uint32_t kFallbackThreads = 2;
constexpr std::uint32_t kMaxSheetThreads = 8;
constexpr std::uint32_t kMaxChannelThreads = 5;
constexpr std::uint32_t kMaxRowThreads = 64;
constexpr std::uint32_t kMaxAutoRowThreads = 8;
constexpr std::uint32_t kMaxConcurrentJobs = 8;
constexpr std::uint32_t kMaxAutotuneCopies = 1000;
constexpr std::uint64_t kLargeStageRows = 64;
constexpr std::uint64_t kLargeStageBytes = 262144;
constexpr std::uint64_t kMinRowsPerThread = 16;

std::uint32_t or_machine(std::uint32_t hw) {
  return hw != 0 ? hw : hardware_threads();
}

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

std::uint32_t at_least_one(std::uint64_t rows, std::uint64_t threads) {
  return static_cast<std::uint32_t>(std::max<std::uint64_t>(std::min(rows, threads), 1));
}

}  // namespace

RipPerformanceEnv RipPerformanceEnv::snapshot() {
  using platform::environment;
  return {environment("NVO_RIP_PARALLEL_SHEETS"),   environment("NVO_RIP_SHEET_THREADS"),
          environment("NVO_RIP_PARALLEL_CHANNELS"), environment("NVO_RIP_PARALLEL_ROWS"),
          environment("NVO_RIP_ROW_THREADS"),       environment("NVO_RIP_MAX_CONCURRENT_JOBS")};
}

std::uint32_t hardware_threads() {
  const unsigned count = std::thread::hardware_concurrency();
  return count != 0 ? count : kFallbackThreads;
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
  const std::uint32_t jobs = std::min(std::max(or_machine(hw) / 2, 1u), kMaxConcurrentJobs);
  block.sheet_threads = std::min(block.sheet_threads, kMaxSheetThreads);
  block.channel_threads = std::min(block.channel_threads, kMaxChannelThreads);
  block.row_threads = std::min(block.row_threads, kMaxRowThreads);
  block.max_concurrent_jobs = std::min(block.max_concurrent_jobs, jobs);
  block.autotune_inputs.workload = canonical_workload(block.autotune_inputs.workload);
  if (!is_one_of(block.autotune_inputs.preset, {"quick", "full"})) block.autotune_inputs.preset = "smoke";
  block.autotune_inputs.qty = std::clamp(block.autotune_inputs.qty, 1u, kMaxAutotuneCopies);
  return block;
}

std::uint32_t channel_threads(std::uint32_t hw, const RipPerformance& block) {
  if (block.mode == PerformanceMode::manual && block.channel_threads != 0)
    return std::min(block.channel_threads, kMaxChannelThreads);
  return std::min(std::max(or_machine(hw), 2u), kMaxChannelThreads);
}

bool use_parallel_channels(bool auto_enabled, std::uint64_t workload_px, std::uint64_t min_pixels,
                           std::uint32_t hw, const RipPerformanceEnv& env, const RipPerformance& block) {
  if (const auto forced = parse_switch(env.parallel_channels)) return *forced;
  const bool enough_threads = channel_threads(hw, block) >= 2;
  if (block.mode == PerformanceMode::manual) {
    if (block.parallel_channels == TriState::off) return false;
    if (block.parallel_channels == TriState::on) return enough_threads;
  }
  return auto_enabled && enough_threads && workload_px >= min_pixels;
}

std::uint32_t row_threads(std::uint64_t rows, std::uint64_t row_bytes, std::uint32_t hw,
                          const RipPerformanceEnv& env, const RipPerformance& block) {
  if (rows < 2 || row_bytes == 0) return 1;
  const auto forced = parse_switch(env.parallel_rows);
  if (forced && !*forced) return 1;

  std::uint64_t cap = std::min(std::max(or_machine(hw), 2u), kMaxAutoRowThreads);
  if (const auto asked = parse_thread_count(env.row_threads)) cap = std::min(*asked, kMaxRowThreads);
  if (forced) return at_least_one(rows, cap);

  if (block.mode == PerformanceMode::manual) {
    if (block.parallel_rows == TriState::off) return 1;
    if (block.row_threads != 0) return at_least_one(rows, std::min(block.row_threads, kMaxRowThreads));
    if (block.parallel_rows == TriState::on) return at_least_one(rows, cap);
  }
  const bool large = rows >= kLargeStageRows && row_bytes >= (kLargeStageBytes + rows - 1) / rows;
  if (!large) return 1;
  return at_least_one(rows, std::min(rows >= kMinRowsPerThread ? rows / kMinRowsPerThread : 1, cap));
}

std::uint32_t shared_row_threads(std::uint32_t callers, std::uint64_t rows, std::uint64_t row_bytes,
                                 std::uint32_t hw, const RipPerformanceEnv& env,
                                 const RipPerformance& block) {
  const std::uint32_t threads = row_threads(rows, row_bytes, hw, env, block);
  const bool asked = parse_switch(env.parallel_rows) || parse_thread_count(env.row_threads) ||
                     (block.mode == PerformanceMode::manual &&
                      (block.row_threads != 0 || block.parallel_rows == TriState::on));
  if (asked || callers < 2) return threads;
  return std::min(threads, std::max((or_machine(hw) + callers - 1) / callers, 1u));
}

}  // namespace nvo
