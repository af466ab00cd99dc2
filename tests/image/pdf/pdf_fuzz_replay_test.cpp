#include <cstddef>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "support/seed_replay.h"

// The fuzz targets, each compiled under a name of its own. They check what comes out.
extern "C" int fuzz_pdf_inflate(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_pdf_tokens(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_spot_content(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_spot_white(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

TEST(PdfFuzzReplay, SeedsKeepTheContract) {
  const std::string corpus = NVO_FUZZ_CORPUS "/";
  EXPECT_GE(replay_seeds(corpus + "pdf_inflate", 1, fuzz_pdf_inflate), 3);
  EXPECT_GE(replay_seeds(corpus + "pdf_tokens", 2, fuzz_pdf_tokens), 3);
  EXPECT_GE(replay_seeds(corpus + "spot_content", 2, fuzz_spot_content), 3);
  EXPECT_GE(replay_seeds(corpus + "spot_white", 2, fuzz_spot_white), 3);
}

}  // namespace
}  // namespace nvo::test
