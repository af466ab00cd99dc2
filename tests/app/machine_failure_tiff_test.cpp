#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

constexpr const char* kCmykProfile = "/usr/share/color/icc/ghostscript/default_cmyk.icc";
constexpr const char* kRgbProfile = "/usr/share/color/icc/colord/AdobeRGB1998.icc";

void paint(std::uint32_t x, std::uint32_t y, std::uint8_t* ink) {
  for (std::uint32_t i = 0; i < 3; ++i) ink[i] = static_cast<std::uint8_t>((x * (i + 3) + y * (7 - i)) % 251);
}

TiffFile white_strips(std::uint16_t compression) {
  TiffFile file = cmykw_tiff(200, 150, [](std::uint32_t x, std::uint32_t y, std::uint8_t* ink) {
    paint(x, y, ink);
    ink[3] = 0, ink[4] = x > 100 ? 0 : 255;
  });
  file.compression = compression;
  return file;
}

TiffFile rgb_strips(std::uint16_t compression) {
  TiffFile file{.samples = 3, .photometric = PHOTOMETRIC_RGB, .width = 200, .height = 150};
  file.compression = compression;
  file.rows_per_strip = 32;
  file.x_resolution = file.y_resolution = 300.0f;
  file.pixel = paint;
  return file;
}

TiffFile white_tiles() {
  TiffFile file = white_strips(COMPRESSION_ADOBE_DEFLATE);
  file.predictor = PREDICTOR_HORIZONTAL;
  file.tile_width = file.tile_length = 64;
  return file;
}

struct FailureCase {
  const char* name;
  std::function<TiffFile()> make_art;
  bool profiles;
  const char* fault;  ///< NVO_FAULT without the number; the error behind it
  const char* error;
  const char* path;   ///< NVO_FAULT_PATH, or null
  long last, tries;   ///< of the job's last calls, or of all for 0, so many are tried, evenly
  const char* cause;  ///< stands in the text of a job that ends
};

/// The job prints what it printed undisturbed, or ends with the cause.
TEST(MachineFailureTiff, EndsTheJobOrLeavesThePrintAsItIs) {
  const auto lzw = [] { return white_strips(COMPRESSION_LZW); };
  const auto plain = [] { return white_strips(COMPRESSION_NONE); };
  const auto jpeg = [] { return rgb_strips(COMPRESSION_JPEG); };
  const FailureCase cases[] = {
      {"LZW strips", lzw, false, "memory", "12", nullptr, 700, 14, "out of memory"},
      {"LZW strips, all objects", lzw, false, "object", "12", nullptr, 0, 16, "out of memory"},
      {"Deflate tiles", white_tiles, false, "memory", "12", nullptr, 0, 16, "out of memory"},
      {"Deflate tiles, all objects", white_tiles, false, "object", "12", nullptr, 0, 16, "out of memory"},
      {"JPEG strips and profiles", jpeg, true, "memory", "12", nullptr, 2900, 30, "out of memory"},
      {"strips, read", plain, false, "read", "5", "art.tif", 1000, 12, "Input/output error"},
      {"strips, open", plain, false, "open", "5", "art.tif", 1000, 12, "Input/output error"},
      {"strips, stat", plain, false, "stat", "5", "art.tif", 1000, 12, "Input/output error"},
      {"profile, read", jpeg, true, "read", "5", ".icc", 1000, 12, "Input/output error"},
      {"profile, open", jpeg, true, "open", "5", ".icc", 1000, 12, "Input/output error"},
      {"profile, stat", jpeg, true, "stat", "5", ".icc", 1000, 12, "Input/output error"},
  };
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.profiles && !(std::filesystem::exists(kCmykProfile) && std::filesystem::exists(kRgbProfile)))
      continue;
    const TempDir folder;
    std::filesystem::create_directories(folder.file("NVO_RIP"));
    if (c.profiles)
      write_all(folder.file("NVO_RIP/icc_settings.json"),
                std::string(R"({"enabled": true, "input_rgb_profile": ")") + kRgbProfile +
                    R"(", "output_profile": ")" + kCmykProfile + "\"}");
    write_tiff(folder.file("art.tif"), c.make_art());
    const std::string print = folder.file("out.prt"), count = folder.file("count");
    const auto run = [&](long call) {
      std::filesystem::remove(print);
      std::map<std::string, std::string> environment{
          {"XDG_CONFIG_HOME", folder.path()},
          {"LD_PRELOAD", NVO_FAULT_PRELOAD},
          {"NVO_FAULT", std::string(c.fault) + ":" + std::to_string(call) + ":" + c.error},
          {"NVO_RIP_PARALLEL_COMPOSE_ITEMS", "1"},
          {"NVO_RIP_COMPOSE_THREADS", "2"}};
      if (c.path) environment["NVO_FAULT_PATH"] = c.path;
      if (call == 0) environment["NVO_FAULT_COUNT"] = count;
      return run_to_end({NVO_RIP_PROGRAM, folder.file("art.tif"), print}, environment);
    };
    ASSERT_EQ(run(0).code, 0);
    const std::string undisturbed = read_all(print);
    const long calls = std::stol(read_all(count)), first = c.last == 0 ? 1 : std::max(1L, calls - c.last + 1);
    const long step = std::max(1L, (calls - first + 1) / c.tries);
    int ended = 0;
    for (long call = first; call <= calls; call += step) {
      const Outcome outcome = run(call);
      const std::string text = outcome.out + outcome.err;
      if (outcome.code == 0) {
        EXPECT_TRUE(read_all(print) == undisturbed) << "call " << call << " of " << calls << "\n" << text;
        continue;
      }
      ++ended;
      const bool told = text.find(c.cause) != text.npos && !std::filesystem::exists(print);
      EXPECT_TRUE(outcome.code == 2 && told) << outcome.code << ", call " << call << " of " << calls << "\n"
                                             << text;
    }
    EXPECT_GT(ended, 0) << "no call mattered";
  }
}

}  // namespace
}  // namespace nvo::test
