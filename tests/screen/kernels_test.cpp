#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "screen/code_spread.h"
#include "screen/kernels/drop_code.h"
#include "screen/kernels/screening_kernels.h"
#include "screen/packed_dots.h"
#include "screen/plain_rip_engine.h"

namespace nvo {
namespace {

using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

std::vector<const ScreeningKernels*> runnable_variants() {
  std::vector<const ScreeningKernels*> found;
  for (const InstructionSet set : {InstructionSet::scalar, InstructionSet::sse41, InstructionSet::avx2})
    if (const ScreeningKernels* kernels = kernels_for(set)) found.push_back(kernels);
  return found;
}

/// Ink values around every step of the code, where a rounding could tip a dot, and many between.
std::vector<float> critical_inks() {
  std::vector<float> inks = {0.0f, std::nextafter(0.0f, 1.0f), 1e-30f, 255.0f,
                             std::nextafter(255.0f, 256.0f)};
  for (int base = 0; base < 3; ++base) {
    for (int mask = 0; mask <= 255; ++mask) {
      float ink = (static_cast<float>(base) + static_cast<float>(mask) / 255.0f) * 85.0f;
      for (int i = 0; i < 12; ++i) ink = std::nextafter(ink, 0.0f);
      for (int i = 0; i < 25; ++i, ink = std::nextafter(ink, 256.0f)) inks.push_back(ink);
    }
  }
  Random random(1);
  for (int i = 0; i < 20000; ++i) inks.push_back(std::uniform_real_distribution<float>(0.0f, 255.0f)(random));
  return inks;
}

TEST(DropCode, GivesTheLevelOfEveryMaskByteInEveryVariant) {
  const std::vector<float> inks = critical_inks();
  for (const ScreeningKernels* kernels : runnable_variants()) {
    std::vector<std::uint8_t> base(inks.size()), threshold(inks.size());
    kernels->encode_row(inks.data(), inks.size(), base.data(), threshold.data());
    for (std::size_t i = 0; i < inks.size(); ++i)
      for (int mask = 0; mask <= 255; ++mask)
        ASSERT_EQ(drop_level({base[i], threshold[i]}, static_cast<std::uint8_t>(mask)),
                  test::PlainRipEngine::level(inks[i], static_cast<std::uint8_t>(mask)))
            << inks[i] << " mask " << mask << " set " << static_cast<int>(kernels->set);
  }
}

/// Random rows for one width, and the operations that run a kernel on them. Inputs start `misalignment`
/// elements into their arrays; outputs are written between guards that must survive.
struct KernelInput {
  static constexpr std::size_t kGuard = 64;
  std::size_t width, misalignment;
  std::vector<std::uint8_t> base, threshold, mask;
  std::vector<float> inks, row;
  std::vector<std::uint64_t> kept;
  Random random;

  KernelInput(std::size_t columns, std::size_t offset)
      : width(columns), misalignment(offset), random(static_cast<std::uint32_t>(columns * 64 + offset)) {
    const std::size_t size = offset + columns * 8 + 64 + kScreenBlock;
    for (std::size_t i = 0; i < size; ++i) {
      base.push_back(static_cast<std::uint8_t>(random() % 4));
      threshold.push_back(static_cast<std::uint8_t>(random() % 4 == 0 ? 255 * (random() & 1) : random()));
      if (base.back() == 3) threshold.back() = 0;
      mask.push_back(static_cast<std::uint8_t>(random() % 4 == 0 ? 255 * (random() & 1) : random()));
      inks.push_back(std::uniform_real_distribution<float>(0.0f, 256.0f)(random));
      row.push_back(std::uniform_real_distribution<float>(0.0f, 255.0f)(random));
    }
    for (std::size_t i = 0; i < columns / 64 + 1; ++i) {
      const std::uint64_t words[] = {0, ~std::uint64_t{0}, std::uint64_t{random()} << 32 | random()};
      kept.push_back(words[random() % 3]);
    }
  }

  /// Ascending column starts up to `step` apart.
  std::vector<std::int32_t> starts(unsigned step) {
    std::vector<std::int32_t> start(width);
    for (std::size_t x = 1; x < width; ++x)
      start[x] = start[x - 1] + static_cast<std::int32_t>(random() % (step + 1));
    return start;
  }
};

/// Every kernel on one input; the bytes of all outputs with their guards.
std::vector<std::uint8_t> run_all(const ScreeningKernels& kernels, KernelInput in) {
  const std::size_t n = in.width, at = KernelInput::kGuard + in.misalignment;
  std::vector<std::uint8_t> result;
  const auto bytes = [&](const std::function<void(std::uint8_t*, std::uint8_t*)>& run) {
    std::vector<std::uint8_t> first(at + n + KernelInput::kGuard, 0xa5), second = first;
    std::copy_n(in.base.begin(), n, first.begin() + static_cast<std::ptrdiff_t>(at));
    run(first.data() + at, second.data() + at);
    const auto is_guard = [](std::uint8_t byte) { return byte == 0xa5; };
    for (const auto* out : {&first, &second}) {
      EXPECT_TRUE(std::all_of(out->begin(), out->begin() + static_cast<std::ptrdiff_t>(at), is_guard));
      EXPECT_TRUE(std::all_of(out->end() - KernelInput::kGuard, out->end(), is_guard));
    }
    result.insert(result.end(), first.begin(), first.end());
    result.insert(result.end(), second.begin(), second.end());
  };
  const auto floats = [&](const std::function<void(float*)>& run) {
    std::vector<float> out(at + n + KernelInput::kGuard, 7.5f);
    run(out.data() + at);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(out.data());
    result.insert(result.end(), raw, raw + out.size() * sizeof(float));
  };
  const std::size_t m = in.misalignment;
  for (const unsigned step : {1u, 2u, 4u}) {  // groups reach less than 8, less than 16 and further
    const auto start = in.starts(step);
    ColumnTapsView taps{start.data(), nullptr, n, step + 1, 0};
    std::vector<float> weights(n * taps.taps);
    for (float& weight : weights) weight = std::uniform_real_distribution<float>(0.0f, 0.5f)(in.random);
    taps.weights = weights.data();
    for (std::size_t x = 0; x + 8 <= n; x += 8) taps.reach = std::max(taps.reach, start[x + 7] - start[x]);
    floats([&](float* out) { kernels.filter_columns(in.row.data() + m, taps, out); });
  }
  floats([&](float* out) { kernels.add_scaled_row(in.row.data() + m, 0.3f, out, n); });
  bytes([&](std::uint8_t* a, std::uint8_t* b) { kernels.encode_row(in.inks.data() + m, n, a, b); });
  bytes([&](std::uint8_t* a, std::uint8_t*) {
    kernels.screen_row(in.base.data() + m, in.threshold.data() + m, in.mask.data() + m, n, a);
  });
  bytes([&](std::uint8_t* a, std::uint8_t*) { kernels.keep_dots(in.kept.data(), n, a); });

  const PairWeights weights{in.inks.data() + m, in.inks.data() + m + n};
  if (n % 2 == 0) {  // two outputs a pixel
    std::vector<CodeWord> codes;
    for (std::size_t i = 0; i < in.base.size(); ++i)
      codes.push_back(static_cast<CodeWord>(in.base[i] | in.threshold[i] << 8));
    bytes([&](std::uint8_t* a, std::uint8_t* b) {
      kernels.encode_pairs(in.row.data() + m, codes.data() + m, weights, n / 2, a, b);
    });
    floats([&](float* out) { kernels.mix_pairs(in.row.data() + m, weights, n / 2, out); });
  }
  if (n % kSpreadGroup == 0) {
    auto columns = in.starts(2);
    for (std::int32_t& column : columns) column = in.random() % 9 == 0 ? -1 : column;
    const CodeSpread spread = build_code_spread(columns);
    EXPECT_TRUE(spread.usable());
    bytes([&](std::uint8_t* a, std::uint8_t* b) {
      kernels.spread_codes(in.base.data() + m, in.threshold.data() + m, spread.view(), a, b);
    });
  }
  std::fill(in.base.begin() + static_cast<std::ptrdiff_t>(m + n), in.base.end(), std::uint8_t{0});
  std::fill(in.threshold.begin() + static_cast<std::ptrdiff_t>(m + n), in.threshold.end(), std::uint8_t{0});
  for (const int least : {1, 3, 128, 255}) {
    std::vector<std::uint64_t> words((n + 63) / 64 + 1, ~std::uint64_t{0});
    kernels.bits_at_least(in.mask.data() + m, static_cast<std::uint8_t>(least), n, words.data());
    for (const std::uint64_t word : words)
      for (int i = 0; i < 8; ++i) result.push_back(static_cast<std::uint8_t>(word >> 8 * i));
  }
  std::vector<std::uint64_t> also(in.kept.rbegin(), in.kept.rend());
  for (const bool all : {false, true})
    bytes([&](std::uint8_t* a, std::uint8_t* dots) {
      const std::vector<std::uint8_t> before(a, a + n);
      kernels.screen_packed(in.base.data() + m, in.threshold.data() + m, in.mask.data() + m,
                            all ? nullptr : in.kept.data(), also.data(), n, a);
      kernels.screen_row(in.base.data() + m, in.threshold.data() + m, in.mask.data() + m, n, dots);
      for (std::size_t i = 0; !all && i < also.size(); ++i) also[i] &= in.kept[i];
      if (!all) kernels.keep_dots(also.data(), n, dots);
      std::vector<std::uint8_t> packed(packed_dots_bytes(static_cast<std::uint32_t>(n)));
      pack_row(dots, static_cast<std::uint32_t>(n), packed.data());
      EXPECT_TRUE(std::equal(packed.begin(), packed.end(), a));
      EXPECT_TRUE(
          std::equal(a + packed.size(), a + n, before.begin() + static_cast<std::ptrdiff_t>(packed.size())));
    });
  return result;
}

TEST(ScreeningKernels, AllVariantsWriteTheSameBytesAndNothingElse) {
  for (std::size_t width = 1; width <= 131; ++width) {
    for (std::size_t misalignment = 0; misalignment < 32; ++misalignment) {
      const KernelInput input(width, misalignment);
      const auto expected = run_all(kScalarKernels, input);
      for (const ScreeningKernels* kernels : runnable_variants())
        ASSERT_TRUE(run_all(*kernels, input) == expected)
            << "width " << width << " misalignment " << misalignment << " set "
            << static_cast<int>(kernels->set);
    }
  }
}

}  // namespace
}  // namespace nvo
