#include "rip/memory_estimate.h"

#include <gtest/gtest.h>

#include "support/failure.h"

namespace nvo {
namespace {

TEST(FullBufferEstimate, CountsEveryBufferUpToAnExactCap) {
  // 10 x 20 source pixels, 6 x 12 dots.
  EXPECT_EQ(full_buffer_bytes({10, 20, 6, 12, false, false, false, false, false}),
            200u * 6 + 72 * 5 + 4 * (120 + 6));
  EXPECT_EQ(full_buffer_bytes({10, 20, 6, 12, true, true, true, true, false}),
            200u * 8 + 72 * 5 + 4 * (120 * 1 + 72 * 5 + 6 * 5));
  EXPECT_EQ(full_buffer_bytes({10, 20, 6, 12, true, false, false, true, true}),
            200u * 7 + 72 * 5 + 4 * (72 + 6));

  // With hard sampling and no choke a sheet of w x 1 pixels and 1 x 1 dots takes 6 w + 9 bytes.
  FullBufferNeeds needs{357913939, 1, 1, 1, false, false, false, true, true};
  ASSERT_EQ(full_buffer_bytes(needs), 2147483643u);
  EXPECT_NO_THROW(require_full_buffer_fits(needs));
  ++needs.src_w;
  EXPECT_EQ(test::failure_of([&] { require_full_buffer_fits(needs); }),
            "StreamRip full-buffer memory cap exceeded: estimate 2048 MiB > cap 2048 MiB");
  needs.src_w = needs.src_h = 4294967295;
  EXPECT_EQ(test::failure_of([&] { full_buffer_bytes(needs); }),
            "StreamRip: full-buffer source buffer size overflow");
}

}  // namespace
}  // namespace nvo
