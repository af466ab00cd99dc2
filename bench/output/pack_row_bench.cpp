#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "output/prt_format.h"
#include "screen/kernels/instruction_set.h"

namespace {

using PackRow = decltype(nvo::PackKernels::pack_row);
constexpr std::uint32_t kRowDots = 15840;  // 22 inches at 720 dpi

void pack_dot_by_dot(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  for (std::uint32_t x = 0; x < width; ++x) {
    if (x % 4 == 0) out[x / 4] = 0;
    out[x / 4] = static_cast<std::uint8_t>(out[x / 4] | (dots[x] & 3) << (6 - 2 * (x % 4)));
  }
}

/// One row stays in the first-level cache; a strip of 6144 rows comes from memory, as in a run.
void pack_rows(benchmark::State& state, PackRow pack) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  std::vector<std::uint8_t> dots(rows * kRowDots);
  for (std::size_t i = 0; i < dots.size(); ++i) dots[i] = static_cast<std::uint8_t>(i * 7 % 11 % 4);
  std::vector<std::uint8_t> packed(rows * nvo::packed_dots_bytes(kRowDots));
  for (auto _ : state) {
    for (std::size_t row = 0; row < rows; ++row)
      pack(dots.data() + row * kRowDots, kRowDots, packed.data() + row * nvo::packed_dots_bytes(kRowDots));
    benchmark::ClobberMemory();
  }
  state.counters["dots"] =
      benchmark::Counter(static_cast<double>(dots.size()), benchmark::Counter::kIsIterationInvariantRate);
}

void unpack_rows(benchmark::State& state) {
  const std::vector<std::uint8_t> packed(nvo::packed_dots_bytes(kRowDots), 0x1B);
  std::vector<std::uint8_t> dots(kRowDots);
  for (auto _ : state) {
    nvo::unpack_row(packed.data(), kRowDots, dots.data());
    benchmark::ClobberMemory();
  }
  state.counters["dots"] = benchmark::Counter(kRowDots, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(unpack_rows);

const bool registered = [] {
  const auto add = [](const std::string& name, PackRow pack) {
    benchmark::RegisterBenchmark(("pack_rows/" + name).c_str(), pack_rows, pack)->Arg(1)->Arg(6144);
  };
  add("dot_by_dot", pack_dot_by_dot);
  for (const nvo::InstructionSet* set : nvo::runnable_instruction_sets())
    add(set->name, set->packing.pack_row);
  return true;
}();

}  // namespace
