#include "output/prt_format.h"

#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output/test_drops.h"
#include "screen/kernels/pack_kernels.h"

namespace nvo {
namespace {

constexpr std::uint8_t kGuard = 0xA5;

std::vector<std::uint8_t> pack_dot_by_dot(const std::uint8_t* dots, std::uint32_t width) {
  std::vector<std::uint8_t> packed(packed_dots_bytes(width));
  for (std::uint32_t x = 0; x < width; ++x)
    packed[x / 4] = static_cast<std::uint8_t>(packed[x / 4] | (dots[x] & 3) << (6 - 2 * (x % 4)));
  return packed;
}

TEST(PackRow, EveryVariantGivesTheBytesOfTheDotLoopAndNothingBeside) {
  std::vector<std::uint32_t> widths(131);
  std::iota(widths.begin(), widths.end(), 1);
  widths.insert(widths.end(), {255, 256, 257, 1023});
  for (const PackVariant& variant : pack_variants()) {
    for (const std::uint32_t width : widths) {
      for (std::uint32_t misalignment = 0; misalignment < 4; ++misalignment) {
        const DropMap source = test::make_drops(width + misalignment, 1, width);
        const std::uint8_t* dots = source.data.data() + misalignment;
        std::vector<std::uint8_t> expected = pack_dot_by_dot(dots, width);
        const std::size_t bytes = expected.size();
        expected.insert(expected.begin(), misalignment + 1, kGuard);
        expected.push_back(kGuard);

        std::vector<std::uint8_t> out(bytes + misalignment + 2, kGuard);
        variant.pack(dots, width, out.data() + misalignment + 1);
        ASSERT_EQ(out, expected) << variant.instruction_set << ", width " << width;

        std::vector<std::uint8_t> levels(dots, dots + width);
        for (std::uint8_t& level : levels) level &= 3;
        levels.push_back(kGuard);
        std::vector<std::uint8_t> unpacked(width + 1, kGuard);
        unpack_row(out.data() + misalignment + 1, width, unpacked.data());
        ASSERT_EQ(unpacked, levels) << "width " << width;
      }
    }
  }
}

TEST(PrtRowLayout, RefusesACycleOf4GiB) {
  const PrtRowLayout widest = prt_row_layout({0, 0}, 2863311520);
  EXPECT_EQ(std::pair(widest.stride, widest.cycle_len), std::pair(715827880u, 4294967280u));
  for (const std::uint32_t width : {2863311521u, 0xFFFFFFFFu})
    EXPECT_THROW(prt_row_layout({0, 0}, width), std::overflow_error) << width;
}

}  // namespace
}  // namespace nvo
