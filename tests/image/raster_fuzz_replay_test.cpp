#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "image/raster_fuzzing.h"
#include "support/temp_dir.h"

namespace nvo::test {
namespace {

/// Each seed as it is, cut short, and with single bytes changed.
TEST(RasterFuzzReplay, SeedsEndInPixelsOrExceptions) {
  const std::pair<const char*, fuzz::OpenDecoder> formats[] = {{"png", open_png_decoder},
                                                               {"jpeg", open_jpeg_decoder},
                                                               {"webp", open_webp_decoder},
                                                               {"bmp", open_bmp_decoder}};
  for (const auto& [name, open] : formats) {
    int seeds = 0;
    for (const auto& entry : std::filesystem::directory_iterator(NVO_FUZZ_CORPUS "/" + std::string(name))) {
      SCOPED_TRACE(entry.path());
      std::string bytes = read_all(entry.path());
      const auto run = [&, decoder = open](std::size_t size) {
        fuzz::decode_image(decoder, reinterpret_cast<const std::uint8_t*>(bytes.data()), size);
      };
      run(bytes.size());
      for (std::size_t i = 0; i < bytes.size(); i += 3) {
        run(i);
        const char original = bytes[i];
        for (const int change : {0x01, 0x80, 0xFF}) {
          bytes[i] = static_cast<char>(original ^ change);
          run(bytes.size());
        }
        bytes[i] = original;
      }
      ++seeds;
    }
    EXPECT_GE(seeds, 3) << name;
  }
}

}  // namespace
}  // namespace nvo::test
