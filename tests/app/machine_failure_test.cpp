#include <algorithm>
#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "image/pdf/pdf_file.h"
#include "image/raster_files.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

using ::testing::ContainsRegex;

constexpr int kErrorOfDisk = 5;
constexpr int kDone = 0, kFailed = 2;
const std::string kCmykProfile = "/usr/share/color/icc/ghostscript/default_cmyk.icc";
const std::string kRgbProfile = "/usr/share/color/icc/colord/AdobeRGB1998.icc";

/// The real program in a folder of the test's own. Masks are made once for all tests.
class MachineFailureTest : public ImageTest {
 protected:
  static void SetUpTestSuite() { config_ = std::make_unique<TempDir>(); }
  static void TearDownTestSuite() { config_.reset(); }

  std::string print_path() const { return dir_.file("print.prt"); }

  /// A run in which a call fails; `plan` is that of the preloaded library.
  Outcome rip(const std::string& art, const std::string& plan, const std::string& path_part = {}) const {
    std::filesystem::remove(print_path());
    std::map<std::string, std::string> environment = {{"XDG_CONFIG_HOME", config_->path()},
                                                      {"NVO_RIP_PARALLEL_COMPOSE_ITEMS", "1"},
                                                      {"NVO_RIP_COMPOSE_THREADS", "2"}};
    if (!plan.empty()) {
      environment.insert(
          {{"LD_PRELOAD", NVO_FAULT_PRELOAD}, {"NVO_FAULT", plan}, {"NVO_FAULT_COUNT", count_path()}});
      std::filesystem::remove(count_path());
    }
    if (!path_part.empty()) environment["NVO_FAULT_PATH"] = path_part;
    return run_to_end({NVO_RIP_PROGRAM, art, print_path()}, environment);
  }
  /// Of a run in which none fails.
  long calls(const std::string& art, const std::string& kind, const std::string& path_part) const {
    EXPECT_EQ(rip(art, kind + ":0", path_part).code, kDone) << art;
    return std::atol(read_all(count_path()).c_str());
  }
  std::string count_path() const { return dir_.file("count"); }

  static inline std::unique_ptr<TempDir> config_;
};

std::string tiff_bytes(std::uint16_t compression, bool rgb = false, std::uint32_t tile = 0) {
  TiffFile file = cmykw_tiff(200, 150, [=](std::uint32_t x, std::uint32_t y, std::uint8_t* ink) {
    for (std::uint32_t i = 0; i < 3; ++i)
      ink[i] = static_cast<std::uint8_t>((x * (i + 3) + y * (7 - i)) % 251);
    if (!rgb) ink[3] = 0, ink[4] = x > 100 ? 0 : 255;
  });
  file.compression = compression;
  file.tile_width = file.tile_length = tile;
  if (tile != 0) file.predictor = PREDICTOR_HORIZONTAL;
  if (rgb) file.samples = 3, file.photometric = PHOTOMETRIC_RGB, file.extra_samples = {};
  const TempDir dir;
  write_tiff(dir.file("a"), file);
  return read_all(dir.file("a"));
}

/// Small art of each format; a further format is a row.
struct Art {
  std::string name, bytes;
  long tries = 1;         ///< times the positions of each fault
  bool profiles = false;  ///< converted by profiles
};

std::vector<Art> all_arts() {
  const Bytes busy = rgba_image(60, 50, busy_pixel);
  return {
      {"plain.png", PngFile{.width = 60, .height = 50}.bytes()},
      {"interlaced.png", PngFile{.interlaced = true, .width = 60, .height = 50}.bytes()},
      {"sequential.jpg", JpegFile{}.bytes()},
      {"progressive.jpg", JpegFile{.progressive = true}.bytes()},
      {"runs.bmp",
       BmpFile{.bits = 8, .compression = 1, .palette = {0, 0xFF}, .data = "\3\1\0\0\3\0\0\1"s}.bytes()},
      {"lossy.webp", webp_bytes(busy, 60, 50, false)},
      {"animated.webp", animated_webp(80, 60, {{2, 4, 60, 50, webp_bytes(busy, 60, 50, true)}})},
      {"white.pdf", pdf_bytes({.boxes = "/MediaBox [0 0 20 20]",
                               .content = "0 0 1 rg 0 6 14 4 re f /S cs 1 scn 2 2 8 8 re f",
                               .resources = "/ColorSpace << /S [/Separation /White /DeviceCMYK << "
                                            "/FunctionType 2 /Domain [0 1] /C0 [0 0 0 0] /C1 [0 0 0 0.1] "
                                            "/N 1 >>] >>"})},
      {"plain.tif", tiff_bytes(COMPRESSION_NONE), 4},
      {"lzw.tif", tiff_bytes(COMPRESSION_LZW), 3},
      {"tiles.tif", tiff_bytes(COMPRESSION_ADOBE_DEFLATE, false, 64), 3},
      {"jpeg.tif", tiff_bytes(COMPRESSION_JPEG, true), 4, true},
  };
}

/// A call that may fail: which positions, and what the failure is called.
struct Fault {
  std::string kind;
  int error;
  std::string of;   ///< only calls on files of this name; "" for all, "art" for the art
  long last, most;  ///< so many of the last calls, or all for 0, and of them so many positions
  std::string text;
};

TEST_F(MachineFailureTest, EndsTheJobOrChangesNothing) {
  // The last allocations are those from the art's first byte on. Before them lies the update check, of whose
  // thousands in C libraries a few will do.
  const std::string no_memory = "out of memory", no_disk = "Input/output error";
  const Fault faults[] = {
      {"memory", 12, "", 0, 3, no_memory},           {"memory", 12, "", 700, 5, no_memory},
      {"object", 12, "", 0, 9, no_memory},           {"open", kErrorOfDisk, "art", 0, 3, no_disk},
      {"read", kErrorOfDisk, "art", 0, 3, no_disk},  {"stat", kErrorOfDisk, "art", 0, 2, no_disk},
      {"memory", 12, ".icc", 2900, 8, no_memory},    {"open", kErrorOfDisk, ".icc", 0, 3, no_disk},
      {"read", kErrorOfDisk, ".icc", 0, 3, no_disk}, {"stat", kErrorOfDisk, ".icc", 0, 3, no_disk},
  };
  const bool have_profiles = std::filesystem::exists(kCmykProfile) && std::filesystem::exists(kRgbProfile);
  long shift = 0;
  for (const auto& [name, bytes, tries, profiles] : all_arts()) {
    if (profiles && !have_profiles) continue;
    std::filesystem::create_directories(config_->file("NVO_RIP"));
    write_all(config_->file("NVO_RIP/icc_settings.json"),
              profiles ? R"({"enabled": true, "input_rgb_profile": ")" + kRgbProfile +
                             R"(", "output_profile": ")" + kCmykProfile + "\"}"
                       : "{}");
    const std::string art = write(name, bytes);
    std::string whole;
    long failed = 0;
    for (const Fault& fault : faults) {
      if (fault.of == ".icc" && !profiles) continue;
      const std::string path_part = fault.kind == "memory" ? "" : fault.of == "art" ? name : fault.of;
      const long count = calls(art, fault.kind, path_part),
                 first = fault.last == 0 ? 1 : std::max(1L, count - fault.last + 1);
      if (whole.empty()) whole = read_all(print_path());
      const long step = std::max(1L, (count - first + 1) / (fault.most * tries)), failed_before = failed;
      for (long n = first + (tries == 1 ? shift++ % step : 0); n <= count; n += step) {
        const std::string plan = fault.kind + ":" + std::to_string(n) + ":" + std::to_string(fault.error);
        SCOPED_TRACE(name + " " + plan);
        const Outcome outcome = rip(art, plan, path_part);
        if (outcome.code == kDone) {
          EXPECT_TRUE(read_all(print_path()) == whole);
          continue;
        }
        ++failed;
        EXPECT_EQ(outcome.code, kFailed);
        EXPECT_FALSE(std::filesystem::exists(print_path()));
        EXPECT_THAT(outcome.out + outcome.err, ContainsRegex("Fatal: .*(" + fault.text + ")"));
      }
      EXPECT_TRUE(failed > failed_before || tries == 1) << name << ": no " << fault.kind << " mattered";
    }
    EXPECT_GE(failed, 3) << name << ": no fault has hit";
  }
}

// Its records are torn down half made at a few allocations only, so none is left out. A job without art ends
// soon behind the check.
TEST_F(MachineFailureTest, TheUpdateCheckSurvivesEachFailedAllocation) {
  const std::string art = dir_.file("missing.png");
  rip(art, "object:0");
  const long count = std::atol(read_all(count_path()).c_str());
  ASSERT_GT(count, 300);
  for (long n = count - 300; n <= count; ++n) {
    const Outcome outcome = rip(art, "object:" + std::to_string(n) + ":12");
    EXPECT_EQ(outcome.code, kFailed) << n;
    EXPECT_THAT(outcome.err, HasSubstr("Fatal: ")) << n;
  }
}

TEST_F(MachineFailureTest, ClaimsThatNoFileCanHoldEndTheJob) {
  const std::string png = png_header_only(8000, 8000);
  const struct {
    Art art;
    std::string claimed, possible;
  } cases[] = {
      {{"claim.bmp", BmpFile{.width = 8000, .height = 8000, .data = std::string(64, 'x')}.bytes()},
       "192000000",
       "64"},
      {{"claim.png", png}, "256000000", std::to_string(png.size() * 1032)},
  };
  for (const auto& [art, claimed, possible] : cases) {
    const std::string path = write(art.name, art.bytes);
    const Outcome outcome = rip(path, "");
    EXPECT_EQ(outcome.code, kFailed);
    EXPECT_THAT(outcome.out, HasSubstr("'" + path + "' claims " + claimed +
                                       " bytes of pixels and can't hold more than " + possible));
    EXPECT_FALSE(std::filesystem::exists(print_path()));
  }
}

}  // namespace
}  // namespace nvo::test
