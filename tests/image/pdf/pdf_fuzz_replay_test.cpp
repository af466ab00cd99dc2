#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

// The fuzz targets, each compiled under a name of its own.
extern "C" int fuzz_pdf_inflate(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_pdf_tokens(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_spot_content(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_spot_white(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

/// Each seed as it is, cut short, and with single bytes changed. The targets check what comes out.
TEST(PdfFuzzReplay, SeedsKeepTheContract) {
  const struct {
    const char* name;
    int (*run)(const std::uint8_t*, std::size_t);
  } targets[] = {{"pdf_inflate", fuzz_pdf_inflate},
                 {"pdf_tokens", fuzz_pdf_tokens},
                 {"spot_content", fuzz_spot_content},
                 {"spot_white", fuzz_spot_white}};
  for (const auto& target : targets) {
    int seeds = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(NVO_FUZZ_CORPUS "/" + std::string(target.name))) {
      SCOPED_TRACE(entry.path());
      std::string bytes = read_all(entry.path());
      const auto run = [&](std::size_t size) {
        target.run(reinterpret_cast<const std::uint8_t*>(bytes.data()), size);
      };
      run(bytes.size());
      for (std::size_t i = 0; i < bytes.size(); i += 2) {
        run(i);
        const char original = bytes[i];
        for (const int change : {0x01, 0x10, 0xFF}) {
          bytes[i] = static_cast<char>(original ^ change);
          run(bytes.size());
        }
        bytes[i] = original;
      }
      ++seeds;
    }
    EXPECT_GE(seeds, 3) << target.name;
  }
}

}  // namespace
}  // namespace nvo::test
