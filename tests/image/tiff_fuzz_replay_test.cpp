#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>

#include "support/seed_replay.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

TEST(TiffFuzzReplay, SeedsEndInPixelsOrExceptions) {
  EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/tiff", 5, LLVMFuzzerTestOneInput), 8);
}

}  // namespace
}  // namespace nvo::test
