// Device-domain white choke of one strip, 3000 x 1024 source pixels on 7200 x 6144 dots, in one thread. "art"
// is a design as shops send them: a photo with a soft edge and holes, discs, hard-edged lettering, hair
// lines. In "grain" the bare parts of the photo carry camera noise around the least value that counts as
// colour: outline everywhere. The rest is the art that is dearest to each choke among 1-px noise of one to
// seven eighths and squares of 1 to 3 px at pitches of 2 to 10, at 0.5 to 2.5 px, by time and by memory
// (changes/dot).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "screen/choke/device_choke.h"
#include "screen/kernels/instruction_set.h"

namespace nvo {
namespace {

constexpr std::uint32_t kWidth = 3000, kRows = 1024;

std::uint32_t hash(std::uint32_t x, std::uint32_t y, std::uint32_t seed) {
  std::uint32_t h = x * 0x9E3779B1u ^ y * 0x85EBCA77u ^ seed * 0xC2B2AE3Du;
  h = (h ^ h >> 15) * 0x2C1B3C6Du;
  h = (h ^ h >> 12) * 0x297A2D39u;
  return h ^ h >> 15;
}

/// Smooth noise, 0..1, on a lattice of `cell` pixels.
double smooth_noise(std::uint32_t x, std::uint32_t y, std::uint32_t cell, std::uint32_t seed) {
  const auto corner = [&](std::uint32_t dx, std::uint32_t dy) {
    return static_cast<double>(hash(x / cell + dx, y / cell + dy, seed) & 255) / 255.0;
  };
  const auto ease = [&](std::uint32_t v) {
    const double t = static_cast<double>(v % cell) / cell;
    return t * t * (3.0 - 2.0 * t);
  };
  const double top = std::lerp(corner(0, 0), corner(1, 0), ease(x));
  return std::lerp(top, std::lerp(corner(0, 1), corner(1, 1), ease(x)), ease(y));
}

struct Art {
  std::vector<std::uint8_t> coverage, white, light;
};

Art make_art(bool grain) {
  Art art;
  for (auto* plane : {&art.coverage, &art.white, &art.light}) plane->resize(std::size_t{kWidth} * kRows);
  for (std::uint32_t y = 0; y < kRows; ++y) {
    for (std::uint32_t x = 0; x < kWidth; ++x) {
      const double across = std::abs(2.0 * x / kWidth - 1.0), down = std::abs(2.0 * y / kRows - 1.0);
      const double rim = std::pow(across, 3) + std::pow(down, 3) + 0.3 * (smooth_noise(x, y, 128, 50) - 0.5);
      double alpha = std::clamp((0.9 - rim) * 40.0, 0.0, 1.0);
      if (hash(x / 64, y / 64, 60) % 29 == 0 && smooth_noise(x, y, 16, 61) < 0.43) alpha = 0.0;
      double ink = 2.0 * (smooth_noise(x, y, 256, 1) + 0.3 * smooth_noise(x, y, 32, 2) - 0.35);
      const bool letter = y % 96 > 30 && x % 48 > 10 && (hash(x % 48 / 8, y % 96 / 12, x / 48) & 1u) != 0;
      if (letter && across < 0.6) ink = 1.0;
      for (std::uint32_t line = 0; line < 3; ++line) {
        const std::uint32_t at = 8 + line * 10;
        if ((x >= at && x <= at + line) || (y >= at && y <= at + line)) ink = alpha = 1.0;
      }
      int value = static_cast<int>(std::clamp(ink, 0.0, 1.0) * 255.0);
      if (grain) value += static_cast<int>(hash(x, y, 99) % 7) - 3;
      const auto index = std::size_t{y} * kWidth + x;
      art.coverage[index] = static_cast<std::uint8_t>(std::clamp(value, grain ? 0 : 4, 255) * alpha);
      art.white[index] = static_cast<std::uint8_t>(alpha * 255.0);
      art.light[index] = value < 30 ? 255 : 0;
    }
  }
  return art;
}

/// 1-px noise that has colour and white on `eighths` of its pixels.
Art make_noise(std::uint32_t eighths) {
  Art art;
  for (std::uint32_t i = 0; i < kWidth * kRows; ++i)
    art.coverage.push_back(hash(i % kWidth, i / kWidth, 7) % 8 < eighths ? 255 : 0);
  art.white = art.coverage;
  art.light.resize(art.coverage.size());
  return art;
}

void prepare_choke(benchmark::State& state, bool adaptive, const Art& art, float amount) {
  DeviceChokeInput input;
  const auto view = [](const std::vector<std::uint8_t>& plane) {
    return PlaneView(plane.data(), kWidth, kRows);
  };
  input.coverage = view(art.coverage);
  input.total_src_rows = kRows;
  DeviceChokeParams params;
  params.choke.white_choke_amount_px_at_300dpi = amount;
  if (adaptive) params.choke.white_choke_algorithm = DeviceChokeAlgorithm::adaptive;
  if (adaptive) {
    input.support_plane = view(art.white);
    input.light_mask = view(art.light);
  }
  double dots = 0.0;
  ChokeContext context;  // a job's strips use the same memory
  for (auto _ : state) {
    context = prepare_device_choke(input, params, std::move(context));
    dots = static_cast<double>(context.width) * context.height;
    benchmark::DoNotOptimize(context.grown.words.data());
  }
  const auto rate = benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert;
  state.counters["s/dot"] = benchmark::Counter(dots, rate);
  const auto places = [](double sum, const auto& panel) { return sum + static_cast<double>(panel.size()); };
  state.counters["changes/dot"] =
      std::accumulate(context.ring.panels.begin(), context.ring.panels.end(), 0.0, places) / dots;
}

/// A step on rows of 15,840 dots.
template <class Step>
void bit_rows(benchmark::State& state, const Step& step) {
  constexpr std::size_t kWords = 248;
  std::vector<std::uint64_t> words(6 * (kWords + 2), 0x0ff0f0f0aa55aa55);
  const auto row = [&](std::size_t i) { return words.data() + i * (kWords + 2) + 1; };
  const std::uint64_t* const rows[] = {row(0), row(1), row(2), row(3)};
  for (auto _ : state) {
    step(rows, row(4), row(5), kWords);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kWords * 64));
}

void or_rows(benchmark::State& state, const BitRowKernels& kernels) {
  bit_rows(state, [&](const std::uint64_t* const rows[4], std::uint64_t* to, std::uint64_t*,
                      std::size_t words) { kernels.or_rows(to, rows, words); });
}

void or_columns(benchmark::State& state, const BitRowKernels& kernels) {
  bit_rows(state, [&](const std::uint64_t* const*, std::uint64_t* from, std::uint64_t* to,
                      std::size_t words) { kernels.or_columns(from, to, 3, words); });
}

BENCHMARK_CAPTURE(prepare_choke, adaptive_art, true, make_art(false), 1.5f)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, adaptive_art_widest, true, make_art(false), 2.5f)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, adaptive_grain, true, make_art(true), 1.5f)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, production_art, false, make_art(false), 1.5f)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, production_art_widest, false, make_art(false), 2.5f)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, production_grain, false, make_art(true), 1.5f)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(prepare_choke, adaptive_noise, true, make_noise(4), 1.0f)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, adaptive_noise_widest, true, make_noise(2), 2.5f)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, production_noise_sparse, false, make_noise(1), 2.5f)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare_choke, production_noise, false, make_noise(3), 2.5f)->Unit(benchmark::kMillisecond);

const bool registered = [] {
  for (const InstructionSet* set : runnable_instruction_sets()) {
    const std::string name = set->name;
    benchmark::RegisterBenchmark(("or_rows/" + name).c_str(), or_rows, set->bit_rows);
    benchmark::RegisterBenchmark(("or_columns/" + name).c_str(), or_columns, set->bit_rows);
  }
  return true;
}();

}  // namespace
}  // namespace nvo
