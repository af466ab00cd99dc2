#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

/// Each seed as it is, cut short, and with single bytes changed.
TEST(ManifestFuzzReplay, SeedsEndInManifestsOrExceptions) {
  int seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(NVO_FUZZ_CORPUS "/manifest")) {
    SCOPED_TRACE(entry.path());
    std::string bytes = read_all(entry.path());
    const auto run = [&](std::size_t size) {
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), size);
    };
    run(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
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
  EXPECT_GE(seeds, 3);
}

}  // namespace
}  // namespace nvo::test
