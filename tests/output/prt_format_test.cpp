#include "output/prt_format.h"

#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
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

TEST(PrtRowLayout, RoundsTheStrideToTheHeadAndChecksTheCycle) {
  struct Case {
    std::uint32_t head, width, stride, cycle_len;
  };
  for (const Case& c :
       {Case{0, 1, 4, 24}, Case{0, 16, 4, 24}, Case{0, 17, 8, 48}, Case{1, 33, 12, 72}, Case{2, 33, 16, 112},
        Case{2, 32, 8, 56}, Case{9, 33, 12, 72}, Case{0, 2863311520, 715827880, 4294967280}}) {
    const PrtRowLayout layout = prt_row_layout({0, c.head}, c.width);
    EXPECT_EQ(layout.stride, c.stride) << "head " << c.head << " width " << c.width;
    EXPECT_EQ(layout.cycle_len, c.cycle_len) << "head " << c.head << " width " << c.width;
  }
  for (const std::uint32_t width : {2863311521u, 0xFFFFFFFFu}) {
    try {
      prt_row_layout({0, 0}, width);
      ADD_FAILURE() << "width " << width << " fits";
    } catch (const std::overflow_error& e) {
      EXPECT_STREQ(e.what(), "HosonWriter stride cycle_len overflow");
    }
  }
}

TEST(PrtHeader, DecodingNamesTheFieldThatIsWrong) {
  struct Case {
    std::size_t field;
    std::uint32_t value;
    const char* message;
  };
  const std::vector<Case> cases = {
      {0, 0x5556, "magic is 0x00005556, not 0x00005555"},
      {3, 24, "stride is 24, not at least 25"},
      {4, 0, "height is 0, not above 0"},
      {5, 0, "width is 0, not above 0"},
      {5, 0xFFFFFFFF, "stride is 28, not at least 1073741824"},
      {7, 5, "channels is 5, not 6 or 7"},
      {7, 0xFFFFFFFF, "channels is 4294967295, not 6 or 7"},
      {8, 4, "bits per dot is 4, not 2"},
      {3, 0xFFFFFFFF, "row cycle is 25769803770, not below 4 GiB"},
  };
  const auto good = encode_prt_header(make_prt_header({0, 0}, {}, 100, 7));
  for (const Case& c : cases) {
    auto bytes = good;
    for (std::size_t i = 0; i < 4; ++i)
      bytes[c.field * 4 + i] = static_cast<std::uint8_t>(c.value >> (8 * i));
    try {
      decode_prt_header(bytes);
      ADD_FAILURE() << "accepted: " << c.message;
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

}  // namespace
}  // namespace nvo
