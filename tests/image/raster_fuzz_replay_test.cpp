#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "image/raster_fuzzing.h"
#include "support/seed_replay.h"

namespace nvo::test {
namespace {

TEST(RasterFuzzReplay, SeedsEndInPixelsOrExceptions) {
  const std::pair<const char*, fuzz::OpenDecoder> formats[] = {{"png", open_png_decoder},
                                                               {"jpeg", open_jpeg_decoder},
                                                               {"webp", open_webp_decoder},
                                                               {"bmp", open_bmp_decoder}};
  for (const auto& [name, open] : formats) {
    const auto decode = [decoder = open](const std::uint8_t* data, std::size_t size) {
      fuzz::decode_image(decoder, data, size);
    };
    EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/" + std::string(name), 3, decode), 3) << name;
  }
}

}  // namespace
}  // namespace nvo::test
