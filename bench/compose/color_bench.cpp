#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "compose/color_conversion.h"

namespace nvo {
namespace {

constexpr std::size_t kWidth = 6600;  // a sheet of 22 inches
const char* const kProfile = "/usr/share/color/icc/ghostscript/default_cmyk.icc";

/// Rows whose colour changes every `run` pixels.
std::vector<std::uint8_t> rows_of(std::size_t channels, std::size_t run, std::int64_t count) {
  std::minstd_rand random(7);
  std::vector<std::uint8_t> rows(kWidth * channels * static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < rows.size(); ++i)
    rows[i] = i / channels % run == 0 ? static_cast<std::uint8_t>(random() >> 8) : rows[i - channels];
  return rows;
}

void count_pixels(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kWidth));
}

void rgb_formula(benchmark::State& state) {
  const auto row = rows_of(3, static_cast<std::size_t>(state.range(0)), 1);
  std::vector<std::uint8_t> cmyk(kWidth * 4);
  for (auto _ : state) {
    rgb_to_cmyk_simple(row.data(), cmyk.data(), kWidth);
    benchmark::ClobberMemory();
  }
  count_pixels(state);
}

/// So many rows come by turns: one repeats its colours at once, a thousand have more than are remembered.
void icc(benchmark::State& state, std::size_t channels) {
  const auto rows = rows_of(channels, static_cast<std::size_t>(state.range(0)), state.range(1));
  std::vector<std::uint8_t> cmyk(kWidth * 4);
  ColorConversion conversion;
  conversion.reset({true, "", kProfile, kProfile});
  std::string error;
  if (!conversion.init_rgb_icc(nullptr, error) || !conversion.init_cmyk_icc(nullptr, error))
    return state.SkipWithError(error.c_str());
  const auto convert = channels == 3 ? &ColorConversion::convert_rgb_row : &ColorConversion::convert_cmyk_row;
  std::size_t row = 0;
  for (auto _ : state) {
    (conversion.*convert)(nullptr, &rows[row], cmyk.data(), kWidth);
    row = (row + kWidth * channels) % rows.size();
    benchmark::ClobberMemory();
  }
  count_pixels(state);
}

BENCHMARK(rgb_formula)->ArgName("run")->Arg(1)->Arg(40);
BENCHMARK_CAPTURE(icc, rgb, 3)->ArgNames({"run", "rows"})->ArgsProduct({{1, 3, 40}, {1, 1000}});
BENCHMARK_CAPTURE(icc, cmyk, 4)->ArgNames({"run", "rows"})->ArgsProduct({{1, 3, 40}, {1, 1000}});

}  // namespace
}  // namespace nvo
