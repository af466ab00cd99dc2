#include <cstddef>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/log.h"
#include "screen/mask_generator.h"

namespace nvo {
namespace {

void one_mask(benchmark::State& state) {
  const auto size = static_cast<std::int32_t>(state.range(0));
  std::vector<std::uint8_t> mask(static_cast<std::size_t>(size) * size);
  for (auto _ : state) {
    generate_mask(mask.data(), size, size, mask_seed(0), 1.5f);
    benchmark::DoNotOptimize(mask.data());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(one_mask)->Arg(256)->Arg(1024)->Unit(benchmark::kMillisecond);

/// What a first run waits for.
void default_set(benchmark::State& state) {
  Logger::instance().set_level(LogLevel::warn);
  for (auto _ : state) {
    auto masks = generate_all_masks({});
    benchmark::DoNotOptimize(masks.data());
  }
}
BENCHMARK(default_set)->Iterations(1)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nvo
