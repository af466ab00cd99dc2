#include "screen/mask_cache.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/platform/paths.h"
#include "support/failure.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;
using test::failure_of;
using test::ScopedVariable;
using testing::ElementsAre;

constexpr MaskParams kSmall{16, 12, 2, 1.5f, 5};
constexpr const char* kSmallName = "bnmask_v5_16x12_m2_sg15.bin";
constexpr std::size_t kHeader = 56;
const std::string kBanner = "[INFO ] =====================================";

std::string all_bytes(const MaskCache& cache) {
  std::string bytes;
  for (std::uint32_t c = 0; c < cache.mask_count(); ++c)
    for (std::uint32_t y = 0; y < cache.tile_h(); ++y)
      bytes.append(reinterpret_cast<const char*>(cache.row(c, y)), cache.tile_w());
  return bytes;
}

TEST(MaskCache, GeneratesSavesAndLoads) {
  const test::TempDir dir;
  test::LogCapture log;
  const std::string folder = dir.file("not/yet/there"), path = folder + "/" + kSmallName;
  const MaskCache generated(kSmall, folder);
  EXPECT_THAT(
      log.take(),
      ElementsAre(kBanner, "[INFO ] MaskCache: bn_cache NOT FOUND",
                  "[INFO ] Generating 2 Blue Noise masks 16x12", "[INFO ] This will take several minutes...",
                  kBanner, "[INFO ] Generating mask 1/2 (sigma=1.5)...", "[INFO ] Mask 1/2 done.",
                  "[INFO ] Generating mask 2/2 (sigma=1.5)...", "[INFO ] Mask 2/2 done.",
                  "[INFO ] MaskCache: all masks generated.", "[INFO ] MaskCache: saved to " + path));
  const std::string file = test::read_all(path);
  const char fields[] = "BMSK\5\0\0\0\x10\0\0\0\x0C\0\0\0\2\0\0\0\0\0\xC0\x3F\5\0\0\0";
  EXPECT_EQ(file.substr(0, 48), std::string(fields, sizeof fields - 1) + std::string(20, '\0'));
  EXPECT_EQ(file.substr(kHeader), all_bytes(generated));

  test::write_all(path, file + "trailing bytes");
  EXPECT_EQ(all_bytes(MaskCache(kSmall, folder)), all_bytes(generated));
  EXPECT_THAT(log.take(), ElementsAre("[INFO ] MaskCache: loaded from " + path));
}

TEST(MaskCache, ReplacesAFileThatDoesNotFit) {
  const std::string mismatch = "[INFO ] MaskCache: params mismatch, regenerating.";
  const std::string bad_hash = "[WARN ] MaskCache: CRC mismatch, regenerating.";
  constexpr std::size_t kWhole = kHeader + 16 * 12 * 2;
  const struct {
    std::size_t flip, size;  // offset of a byte to change, where the file is cut off
    const std::string& first_line;
  } cases[] = {{3, kWhole, mismatch},          {4, kWhole, mismatch},         {8, kWhole, mismatch},
               {12, kWhole, mismatch},         {16, kWhole, mismatch},        {20, kWhole, mismatch},
               {24, kWhole, mismatch},         {48, kWhole, bad_hash},        {kHeader, kWhole, bad_hash},
               {kWhole - 1, kWhole, bad_hash}, {kWhole, kWhole - 1, kBanner}, {kWhole, kHeader - 1, kBanner},
               {8, kHeader, mismatch},         {kWhole, 0, kBanner}};
  const test::TempDir dir;
  test::LogCapture log;
  const std::string path = dir.file(kSmallName);
  const std::string masks = all_bytes(MaskCache(kSmall, dir.path().string()));
  const std::string good = test::read_all(path);
  ASSERT_EQ(good.size(), kWhole);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "byte " << c.flip << " of " << c.size);
    std::string bad = good;
    if (c.flip < kWhole) bad[c.flip] ^= 1;
    test::write_all(path, bad.substr(0, c.size));
    log.take();
    EXPECT_EQ(all_bytes(MaskCache(kSmall, dir.path().string())), masks);
    EXPECT_EQ(log.take().front(), c.first_line);
    EXPECT_EQ(test::read_all(path), good);
  }
  EXPECT_THAT(dir.names(), ElementsAre(kSmallName));
  EXPECT_NE(all_bytes(MaskCache({16, 12, 2, 1.55f, 5}, dir.path().string())), masks) << "file of that name";
}

TEST(MaskCache, TriesFoldersInOrder) {
  const test::TempDir dir;
  test::LogCapture log;
  test::write_all(dir.file("file"), "");
  const fs::path blocked = dir.path() / "file" / "cache", first = dir.path() / "a", second = dir.path() / "b";
  const auto make = [&](const std::vector<fs::path>& folders) {
    log.take();
    EXPECT_TRUE(MaskCache(kSmall, folders).valid());
    return log.take();
  };
  const std::string loaded = "[INFO ] MaskCache: loaded from " + (second / kSmallName).string();

  auto lines = make({blocked, second});
  EXPECT_THAT(
      std::vector(lines.end() - 3, lines.end()),
      ElementsAre("[WARN ] MaskCache: cannot create cache dir " + blocked.string() + " (Not a directory)",
                  "[WARN ] MaskCache: could not save to " + (blocked / kSmallName).string(),
                  "[INFO ] MaskCache: saved to " + (second / kSmallName).string()));
  fs::create_directory(first);
  test::write_all((first / kSmallName).string(), "BMSK");
  EXPECT_THAT(make({blocked, first, dir.path() / "c", second}), ElementsAre(loaded));
  EXPECT_EQ(fs::file_size(first / kSmallName), 4u);
  EXPECT_FALSE(fs::exists(dir.path() / "c"));
  EXPECT_EQ(make({blocked, blocked}).back(), "[WARN ] MaskCache: could not save (not critical)");

  // A folder or a pipe in place of the file is not read.
  fs::create_directories(dir.path() / "d" / kSmallName);
  fs::create_directory(dir.path() / "e");
  ASSERT_EQ(::mkfifo((dir.path() / "e" / kSmallName).c_str(), 0600), 0);
  EXPECT_EQ(make({dir.path() / "d", dir.path() / "e"}).back(),
            "[INFO ] MaskCache: saved to " + (dir.path() / "e" / kSmallName).string());
  EXPECT_TRUE(fs::is_empty(dir.path() / "d" / kSmallName));
}

TEST(MaskCache, FoldersDependOnTheCallerAndTheSystem) {
  const fs::path beside = platform::executable_directory() / "bn_cache", here = fs::current_path();
  EXPECT_THAT(mask_cache_folders("/some/where"), ElementsAre("/some/where"));
  EXPECT_THAT(mask_cache_folders("masks"), ElementsAre(here / "masks"));
  const ScopedVariable home("HOME", nullptr);
  {
    const ScopedVariable config("XDG_CONFIG_HOME", "/config");
    EXPECT_THAT(mask_cache_folders(""), ElementsAre(beside, "/config/NVO_RIP/bn_cache"));
  }
  const ScopedVariable config("XDG_CONFIG_HOME", nullptr);
  auto expected = std::vector{beside};
  if (here / "bn_cache" != beside) expected.push_back(here / "bn_cache");
  EXPECT_EQ(mask_cache_folders(""), expected);
}

TEST(MaskCache, ASaveIsWholeOrLeavesNothing) {
  bool failed = true;
  for (long n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    const test::TempDir dir;
    test::LogCapture log;
    test::fault_plan = {.fail_at = n, .short_writes = n % 2 == 0};
    const MaskCache cache(kSmall, dir.path().string());
    failed = test::fault_plan.calls >= test::fault_plan.fail_at;
    test::fault_plan = {};

    const bool saved = fs::exists(dir.path() / kSmallName);
    EXPECT_TRUE(saved || failed);
    EXPECT_EQ(dir.names().size(), saved ? 1u : 0u);
    EXPECT_EQ(log.take().back(), saved ? "[INFO ] MaskCache: saved to " + dir.file(kSmallName)
                                       : "[WARN ] MaskCache: could not save (not critical)");
    EXPECT_EQ(all_bytes(MaskCache(kSmall, dir.path().string())), all_bytes(cache));
    EXPECT_EQ(log.contains("loaded from"), saved);
  }
}

TEST(MaskCache, LookUpRepeatsTheTile) {
  const test::LogCapture log;
  const test::TempDir dir;
  for (const auto& [w, h] : {std::pair{16u, 8u}, {12u, 10u}}) {
    const MaskCache cache({w, h, 3, 1.0f, 5}, dir.path().string());
    for (const int y : {0, 7, 9, 25, -1, -13}) {
      for (const int x : {0, 11, 15, 40, -1, -29}) {
        // Sixty tiles on all coordinates are positive.
        EXPECT_EQ(cache.at(2, x, y), cache.row(2, (y + 60 * h) % h)[(x + 60 * w) % w]);
        EXPECT_EQ(cache.at(-1, x, y), cache.at(2, x, y));
        EXPECT_EQ(cache.at(4, x, y), cache.at(1, x, y));
      }
    }
    EXPECT_EQ(cache.row(1, 3 * h + 2), cache.row(1, 2));
  }
}

TEST(MaskCache, RejectsBadParameters) {
  const std::string positive = "tile_w/tile_h/n_masks must be > 0";
  const std::string range = "dimensions exceed supported range", large = "requested cache is too large";
  const std::string two = "tile must contain at least two pixels";
  const std::string sigma = "sigma must be finite and within supported range";
  const std::pair<MaskParams, std::string> cases[] = {
      {{0, 1, 1}, positive},          {{1, 0, 1}, positive},
      {{0x80000000, 1, 0}, positive}, {{0x80000000, 1, 1}, range},
      {{1, 1, 0x80000000}, range},    {{0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF}, large},
      {{0x8000, 0x4000, 2}, large},   {{1, 1, 6, NAN}, two},
      {{16, 16, 1, NAN}, sigma},      {{16, 16, 1, 0.0f}, sigma},
      {{16, 16, 1, 64.01f}, sigma},
  };
  for (const auto& [params, message] : cases)
    EXPECT_EQ(failure_of([&] { MaskCache(params, std::vector<fs::path>{}); }), "MaskCache: " + message);
}

}  // namespace
}  // namespace nvo
