#include "rip/memory_estimate.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace nvo {
namespace {

TEST(FullBufferEstimate, CountsEveryBuffer) {
  // 10 x 20 source pixels, 6 x 12 dots.
  FullBufferNeeds needs{10, 20, 6, 12, false, false, false, false, false};
  EXPECT_EQ(full_buffer_bytes(needs), 200u * 6 + 72 * 5 + 4 * (120 + 6));
  needs.device_choke = true;
  EXPECT_EQ(full_buffer_bytes(needs), 200u * 7 + 72 * 5 + 4 * (120 + 72 + 6));
  needs.light_protection = needs.parallel_channels = true;
  EXPECT_EQ(full_buffer_bytes(needs), 200u * 8 + 72 * 5 + 4 * (120 * 5 + 72 * 5 + 6 * 5));
  needs.color_hard = true;
  EXPECT_EQ(full_buffer_bytes(needs), 200u * 8 + 72 * 5 + 4 * (120 * 1 + 72 * 5 + 6 * 5));
  needs.white_hard = true;
  EXPECT_EQ(full_buffer_bytes(needs), 200u * 8 + 72 * 5 + 4 * (72 * 5 + 6 * 5));
  needs.parallel_channels = false;
  EXPECT_EQ(full_buffer_bytes(needs), 200u * 8 + 72 * 5 + 4 * (72 + 6));
}

TEST(FullBufferEstimate, CapIsExactAndOverflowIsNamed) {
  // With hard sampling and no choke a sheet of w x 1 pixels and 1 x 1 dots takes 6 w + 9 bytes.
  FullBufferNeeds needs{357913939, 1, 1, 1, false, false, false, true, true};
  ASSERT_EQ(full_buffer_bytes(needs), 2147483643u);
  EXPECT_NO_THROW(require_full_buffer_fits(needs));
  ++needs.src_w;
  try {
    require_full_buffer_fits(needs);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "StreamRip full-buffer memory cap exceeded: estimate 2048 MiB > cap 2048 MiB");
  }
  const FullBufferNeeds huge{4294967295, 4294967295, 1, 1, false, false, false, true, true};
  try {
    full_buffer_bytes(huge);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "StreamRip: full-buffer source buffer size overflow");
  }
}

}  // namespace
}  // namespace nvo
