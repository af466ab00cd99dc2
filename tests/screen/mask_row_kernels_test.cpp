#include "screen/kernels/mask_row_kernels.h"

#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace nvo {
namespace {

// The machine's kernels against the plain ones, in rows of all lengths, with guard words around the result.
TEST(MaskRowKernels, AllGiveTheSameWords) {
  constexpr std::size_t kMostWords = 37;
  constexpr std::uint64_t kGuard = 0x1234567890abcdef;
  std::mt19937_64 random(11);
  std::vector<std::vector<std::uint64_t>> rows(4, std::vector<std::uint64_t>(kMostWords + 2));
  for (auto& row : rows)
    for (std::uint64_t& word : row) word = random() | random();
  const std::uint64_t* const four[] = {&rows[0][1], &rows[1][1], &rows[2][1], &rows[3][1]};

  const auto results = [&](const MaskRowKernels& kernels, std::size_t words, int shift) {
    std::vector<std::vector<std::uint64_t>> all;
    for (const auto combine : {kernels.and_rows, kernels.or_rows}) {
      all.emplace_back(words + 2, kGuard);
      combine(&all.back()[1], four, words);
    }
    for (const auto combine : {kernels.and_columns, kernels.or_columns}) {
      all.emplace_back(words + 2, kGuard);
      combine(four[0], &all.back()[1], shift, words);
    }
    for (const auto& row : all) EXPECT_EQ(std::pair(row.front(), row.back()), std::pair(kGuard, kGuard));
    return all;
  };
  for (std::size_t words = 0; words <= kMostWords; ++words)
    for (const int shift : {1, 2, 31, 32, 63})
      ASSERT_EQ(results(mask_row_kernels(), words, shift), results(kPlainMaskRowKernels, words, shift));
}

}  // namespace
}  // namespace nvo
