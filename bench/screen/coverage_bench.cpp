// What the white choke derives from the composed colours of a strip; items are source pixels.
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "screen/choke/coverage_planes.h"

namespace nvo {
namespace {

constexpr std::uint32_t kPixels = 3000 * 256;

/// Four planes whose colour changes every `run` pixels.
struct Strip {
  std::vector<std::uint8_t> inks[4];
  std::vector<std::uint8_t> out = std::vector<std::uint8_t>(kPixels);

  explicit Strip(std::size_t run) {
    std::minstd_rand random(7);
    for (auto& plane : inks) {
      plane.resize(kPixels);
      for (std::size_t i = 0; i < kPixels; ++i)
        plane[i] = i % run == 0 ? static_cast<std::uint8_t>(random() >> 9) : plane[i - 1];
    }
  }
  ColourPlanes view() const {
    const auto plane = [&](std::size_t i) { return PlaneView(inks[i].data(), kPixels, 1); };
    return {plane(0), plane(1), plane(2), plane(3)};
  }
};

void coverage(benchmark::State& state) {
  Strip strip(1);
  for (auto _ : state) {
    colour_coverage(strip.view(), 0, strip.out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kPixels));
}

void light(benchmark::State& state) {
  Strip strip(static_cast<std::size_t>(state.range(0)));
  const LightProtection protection(85.0f);
  for (auto _ : state) {
    protection.protect(strip.view(), 0, strip.out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kPixels));
}

BENCHMARK(coverage);
BENCHMARK(light)->ArgName("run")->Arg(1)->Arg(40);

}  // namespace
}  // namespace nvo
