#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "screen/code_gather.h"
#include "screen/kernels/drop_code.h"
#include "screen/kernels/instruction_set.h"
#include "screen/packed_dots.h"
#include "screen/plain_rip_engine.h"

namespace nvo {
namespace {

using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

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
  for (const InstructionSet* set : runnable_instruction_sets()) {
    std::vector<std::uint8_t> base(inks.size()), threshold(inks.size());
    set->screening.encode_row(inks.data(), inks.size(), base.data(), threshold.data());
    for (std::size_t i = 0; i < inks.size(); ++i)
      for (int mask = 0; mask <= 255; ++mask)
        ASSERT_EQ(drop_level({base[i], threshold[i]}, static_cast<std::uint8_t>(mask)),
                  test::PlainRipEngine::level(inks[i], static_cast<std::uint8_t>(mask)))
            << inks[i] << " mask " << mask << " set " << set->name;
  }
}

constexpr std::size_t kGuard = 64;

/// Random rows for one width that start `misalignment` elements into their arrays.
struct KernelInput {
  std::size_t width, misalignment;
  std::vector<std::uint8_t> base, threshold, mask;
  std::vector<float> inks, row;
  std::vector<std::uint64_t> kept;
  Random random;

  KernelInput(std::size_t columns, std::size_t offset)
      : width(columns), misalignment(offset), random(static_cast<std::uint32_t>(columns * 64 + offset)) {
    const auto extreme_or_any = [&] {
      return static_cast<std::uint8_t>(random() % 4 == 0 ? 255 * (random() & 1) : random());
    };
    const std::size_t size = offset + columns * 8 + 64 + kScreenBlock;
    for (std::size_t i = 0; i < size; ++i) {
      base.push_back(static_cast<std::uint8_t>(random() % 4));
      threshold.push_back(base.back() == 3 ? std::uint8_t{0} : extreme_or_any());
      mask.push_back(extreme_or_any());
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

/// Every kernel of bytes and floats on one input; the bytes of all outputs. They stand between guards that
/// must survive.
std::vector<std::uint8_t> run_all(const InstructionSet& set, KernelInput in) {
  const ScreeningKernels& kernels = set.screening;
  const std::size_t n = in.width, m = in.misalignment;
  const std::uint8_t *base = &in.base[m], *threshold = &in.threshold[m], *mask = &in.mask[m];
  const float *inks = &in.inks[m], *row = &in.row[m];
  std::vector<std::uint8_t> result;
  const auto output = [&]<class T>(T guard, const auto& run) {
    std::vector<T> first(kGuard + m, guard);
    first.insert(first.end(), in.base.begin(), in.base.begin() + static_cast<std::ptrdiff_t>(n));
    first.resize(first.size() + kGuard, guard);
    std::vector<T> second = first;
    run(&first[kGuard + m], &second[kGuard + m]);
    for (const std::vector<T>& out : {first, second}) {
      const auto is_guard = [&](T value) { return value == guard; };
      EXPECT_TRUE(std::all_of(out.data(), &out[kGuard + m], is_guard));
      EXPECT_TRUE(std::all_of(out.end() - kGuard, out.end(), is_guard));
      const auto* raw = reinterpret_cast<const std::uint8_t*>(out.data());
      result.insert(result.end(), raw, raw + out.size() * sizeof(T));
    }
  };
  const std::uint8_t byte_guard = 0xa5;
  const std::uint8_t* const four[] = {base, threshold, mask, &in.mask[m + n / 2]};
  output(byte_guard, [&](auto* largest, auto* light) {
    set.coverage.largest(four[0], four[1], four[2], four[3], n, largest);
    set.coverage.at_least(four[0], four[1], four[2], four[3], n, 0.6f, light);
  });
  const float float_guard = 7.5f;
  for (const unsigned step : {1u, 2u, 4u}) {  // groups reach less than 8, less than 16 and further
    const auto start = in.starts(step);
    ColumnTapsView taps{start.data(), nullptr, n, step + 1, 0};
    std::vector<float> weights(n * taps.taps);
    for (float& weight : weights) weight = std::uniform_real_distribution<float>(0.0f, 0.5f)(in.random);
    taps.weights = weights.data();
    for (std::size_t x = 0; x + 8 <= n; x += 8) taps.reach = std::max(taps.reach, start[x + 7] - start[x]);
    output(float_guard, [&](float* out, float*) { kernels.filter_columns(row, taps, out); });
  }
  output(float_guard, [&](float* out, float*) { kernels.add_scaled_row(row, 0.3f, out, n); });
  output(byte_guard, [&](auto* a, auto* b) { kernels.encode_row(inks, n, a, b); });
  output(byte_guard, [&](auto* a, auto*) { kernels.screen_row(base, threshold, mask, n, a); });
  output(byte_guard, [&](auto* a, auto*) { kernels.keep_dots(in.kept.data(), n, a); });

  if (n % 2 == 0) {  // two outputs a pixel
    const PairWeights weights{inks, inks + n};
    std::vector<CodeWord> codes;
    for (std::size_t i = 0; i < in.base.size(); ++i)
      codes.push_back(static_cast<CodeWord>(in.base[i] | in.threshold[i] << 8));
    output(byte_guard, [&](auto* a, auto* b) { kernels.encode_pairs(row, &codes[m], weights, n / 2, a, b); });
    output(float_guard, [&](float* out, float*) { kernels.mix_pairs(row, weights, n / 2, out); });
  }
  if (n % kGatherGroup == 0) {
    auto columns = in.starts(2);
    for (std::int32_t& column : columns) column = in.random() % 9 == 0 ? -1 : column;
    const CodeGather gather = build_code_gather(columns);
    EXPECT_TRUE(gather.usable());
    output(byte_guard, [&](auto* a, auto* b) { kernels.gather_codes(base, threshold, gather.view(), a, b); });
  }
  for (auto* codes : {&in.base, &in.threshold}) std::fill(&(*codes)[m + n], &codes->back(), std::uint8_t{0});
  for (const int least : {1, 3, 128, 255}) {
    std::vector<std::uint64_t> words((n + 63) / 64 + 1, ~std::uint64_t{0});
    kernels.bits_at_least(mask, static_cast<std::uint8_t>(least), n, words.data());
    const auto* raw = reinterpret_cast<const std::uint8_t*>(words.data());
    result.insert(result.end(), raw, raw + words.size() * sizeof words[0]);
  }
  std::vector<std::uint64_t> also(in.kept.rbegin(), in.kept.rend());
  output(byte_guard, [&](auto* a, auto*) {  // onto levels that are 0 where dots are added
    kernels.screen_packed(base, threshold, mask, in.kept.data(), also.data(), n, a);
    kernels.add_packed(base, threshold, mask, in.kept.data(), also.data(), n, a);
  });
  for (const bool all : {false, true})
    output(byte_guard, [&](auto* a, auto* dots) {
      std::vector<std::uint8_t> expected(a, a + n);
      kernels.screen_packed(base, threshold, mask, all ? nullptr : in.kept.data(), also.data(), n, a);
      kernels.screen_row(base, threshold, mask, n, dots);
      for (std::size_t i = 0; !all && i < also.size(); ++i) also[i] &= in.kept[i];
      if (!all) kernels.keep_dots(also.data(), n, dots);
      set.packing.pack_row(dots, static_cast<std::uint32_t>(n), expected.data());
      EXPECT_TRUE(std::equal(expected.begin(), expected.end(), a));
    });
  return result;
}

TEST(Kernels, OfAllInstructionSetsWriteTheSameBytesAndNothingElse) {
  for (std::size_t width = 1; width <= 131; ++width) {
    for (std::size_t misalignment = 0; misalignment < 32; ++misalignment) {
      const KernelInput input(width, misalignment);
      const auto expected = run_all(*runnable_instruction_sets().front(), input);
      for (const InstructionSet* set : runnable_instruction_sets().subspan(1))
        ASSERT_TRUE(run_all(*set, input) == expected)
            << "width " << width << " misalignment " << misalignment << " set " << set->name;
    }
  }
}

// Bit by bit, in rows of all lengths, with guard words around the result.
TEST(BitRowKernels, OfAllInstructionSetsCombineBits) {
  constexpr std::size_t kMostWords = 37;
  constexpr std::uint64_t kGuardWord = 0x1234567890abcdef;
  std::mt19937_64 random(11);
  std::vector<std::vector<std::uint64_t>> rows(5, std::vector<std::uint64_t>(kMostWords + 2));
  for (std::size_t i = 0; i < rows.size(); ++i)
    for (std::uint64_t& word : rows[i]) word = i < 2 ? random() & random() : random() | random();
  const std::uint64_t* const four[] = {&rows[0][1], &rows[1][1], &rows[2][1], &rows[3][1]};
  const auto bit = [](const std::vector<std::uint64_t>& row, int x) {  // x is -64 and more
    return (row[static_cast<std::size_t>(x + 64) / 64] >> (x & 63) & 1) != 0;
  };
  for (const InstructionSet* set : runnable_instruction_sets()) {
    const BitRowKernels& kernels = set->bit_rows;
    for (std::size_t words = 0; words <= kMostWords; ++words) {
      for (const int shift : {1, 2, 31, 32, 63}) {
        std::vector<std::uint64_t> and_rows(rows[4]), or_rows(rows[4]), and_columns(rows[4]),
            or_columns(rows[4]);
        for (auto* row : {&and_rows, &or_rows, &and_columns, &or_columns}) (*row)[words + 1] = kGuardWord;
        kernels.and_rows(&and_rows[1], four, words);
        kernels.or_rows(&or_rows[1], four, words);
        kernels.and_columns(four[0], &and_columns[1], shift, words);
        kernels.or_columns(four[0], &or_columns[1], shift, words);
        for (const auto* row : {&and_rows, &or_rows, &and_columns, &or_columns})
          ASSERT_EQ(std::pair(row->front(), (*row)[words + 1]), std::pair(rows[4].front(), kGuardWord));
        for (int x = 0; x < static_cast<int>(words) * 64; ++x) {
          const auto at = [&](std::size_t i) { return bit(rows[i], x); };
          const bool left = bit(rows[0], x - shift), right = bit(rows[0], x + shift);
          ASSERT_EQ(bit(and_rows, x), at(4) && at(0) && at(1) && at(2) && at(3)) << set->name;
          ASSERT_EQ(bit(or_rows, x), at(4) || at(0) || at(1) || at(2) || at(3)) << set->name;
          ASSERT_EQ(bit(and_columns, x), at(0) && left && right) << set->name;
          ASSERT_EQ(bit(or_columns, x), at(0) || left || right) << set->name;
        }
      }
    }
  }
}

}  // namespace
}  // namespace nvo
