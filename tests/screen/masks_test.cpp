// The blue-noise masks: how they are made, kept in files and looked up.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include "core/fnv1a.h"
#include "core/platform/paths.h"
#include "screen/mask_cache.h"
#include "screen/mask_generator.h"
#include "support/failure.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace {

int threads_left = -1;  ///< that the system has; below 0 for all it wants

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument) {
  static const auto real =
      reinterpret_cast<decltype(&::pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  if (threads_left == 0) return EAGAIN;
  if (threads_left > 0) --threads_left;
  return real(thread, attributes, run, argument);
}

namespace nvo {
namespace {

namespace fs = std::filesystem;
using test::failure_of;
using test::ScopedVariable;
using testing::ElementsAre;

/// Void-and-cluster as the textbook has it: every placement scans the whole tile.
class PlainGenerator {
 public:
  PlainGenerator(int w, int h, float sigma) : w_(w), h_(h), sigma_(sigma), dot_(w * h), energy_(w * h) {}

  std::vector<std::uint8_t> run(std::uint64_t x) {
    const int pixels = w_ * h_, dots = std::max(pixels / 10, 1);
    for (int set = 0; set < dots;) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      const auto i = static_cast<int>(x % static_cast<std::uint64_t>(pixels));
      if (!dot_[i]) ++set, put(i, true);
    }
    for (int from = -1, to = 0; from != to;) {
      put(from = extreme(true), false);
      put(to = extreme(false), true);
    }
    std::vector<std::uint8_t> bytes(dot_.size());
    const auto rank_next = [&](bool dot, int rank) {
      const int i = extreme(dot);
      bytes[i] = static_cast<std::uint8_t>(rank * 255 / (pixels - 1));
      put(i, !dot);
    };
    const PlainGenerator relaxed = *this;
    for (int rank = dots - 1; rank >= 0; --rank) rank_next(true, rank);
    *this = relaxed;
    for (int rank = dots; rank < pixels; ++rank) rank_next(false, rank);
    return bytes;
  }

 private:
  /// The first dot of the highest energy, or the first void of the lowest.
  int extreme(bool dot) const {
    int best = 0;
    while (dot_[best] != dot) ++best;
    for (int i = best + 1; i < w_ * h_; ++i)
      if (dot_[i] == dot && (dot ? energy_[i] > energy_[best] : energy_[i] < energy_[best])) best = i;
    return best;
  }

  void put(int index, bool dot) {
    dot_[index] = dot;
    const int radius = std::max(static_cast<int>(std::ceil(sigma_ * 3)), 1);
    for (int dy = -radius; dy <= radius; ++dy) {
      for (int dx = -radius; dx <= radius; ++dx) {
        const float weight = expf(-static_cast<float>(dx * dx + dy * dy) / ((sigma_ + sigma_) * sigma_));
        const int y = ((index / w_ + dy) % h_ + h_) % h_, x = ((index % w_ + dx) % w_ + w_) % w_;
        energy_[y * w_ + x] += dot ? weight : -weight;
      }
    }
  }

  int w_, h_;
  float sigma_;
  std::vector<std::uint8_t> dot_;
  std::vector<float> energy_;
};

TEST(MaskGenerator, GivesTheBytesOfFullScans) {
  const struct {
    int w, h;
    float sigma;
  } cases[] = {{3, 3, 1.0f},    {10, 12, 3.0f}, {10, 16, 4.0f}, {2, 1, 1.5f},    {1, 2, 0.5f},
               {1, 64, 1.5f},   {64, 1, 1.0f},  {7, 5, 0.4f},   {16, 8, 1.5f},   {17, 9, 1.5f},
               {15, 40, 4.0f},  {37, 53, 2.0f}, {53, 37, 8.0f}, {64, 64, 0.01f}, {96, 40, 1.5f},
               {300, 17, 1.5f}, {11, 11, 1.5f}, {33, 300, 1.0f}};
  int index = 0;
  for (const auto& c : cases) {
    const std::uint64_t seed = mask_seed(index++ % 6);
    std::vector<std::uint8_t> mask(static_cast<std::size_t>(c.w * c.h));
    generate_mask(mask.data(), c.w, c.h, seed, c.sigma);
    EXPECT_TRUE(mask == PlainGenerator(c.w, c.h, c.sigma).run(seed)) << c.w << "x" << c.h << " " << c.sigma;
  }
}

TEST(MaskGenerator, TakesTheThreadsThatThereAre) {
  const test::LogCapture log;
  const auto masks = generate_all_masks({16, 12, 3, 1.5f, 5});
  for (const int threads : {0, 1}) {
    threads_left = threads;
    EXPECT_EQ(generate_all_masks({16, 12, 3, 1.5f, 5}), masks);
    threads_left = -1;
  }
}

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

/// A whole file of the prints' own parameters counts only with the masks that the generator makes.
TEST(MaskCache, KnowsTheMasksOfEveryPrint) {
  const test::TempDir share, own;
  test::LogCapture log;
  const std::string masks = all_bytes(MaskCache({}, share.path().string()));
  EXPECT_EQ(masks.size(), 6u << 20);
  EXPECT_EQ(fnv1a(masks.data(), masks.size()), 0xBC20D3E320440649ULL);
  EXPECT_EQ(mask_seed(46341), 0xF6F1B6180B883CA5ULL) << "whose square is negative in 32 bits";

  const std::string name = share.names().front(), good = test::read_all(share.file(name));
  for (std::size_t eighth = 0; eighth < 8; ++eighth) {
    std::string foreign = good;
    foreign[kHeader + eighth * masks.size() / 8 + 1000] ^= 1;
    const std::uint64_t hash = fnv1a(foreign.data() + kHeader, foreign.size() - kHeader);
    std::memcpy(foreign.data() + 48, &hash, sizeof hash);
    test::write_all(own.file(name), foreign);
    log.take();
    EXPECT_EQ(all_bytes(MaskCache({}, std::vector{own.path()}, share.path())), masks);
    EXPECT_THAT(log.take(), ElementsAre("[WARN ] MaskCache: '" + own.file(name) +
                                            "' is whole, but its masks aren't those of this program and "
                                            "would print other dots; regenerating.",
                                        "[INFO ] MaskCache: loaded from " + share.file(name)));
  }
}

TEST(MaskCache, AFailureToReadIsNoDamage) {
  const test::TempDir dir;
  test::LogCapture log;
  const MaskCache cache(kSmall, dir.path().string());
  const auto failure = [&] { return failure_of([&] { MaskCache(kSmall, dir.path().string()); }); };
  test::fault_plan = {.fail_at = 1};
  EXPECT_EQ(failure(), "cannot open '" + dir.file(kSmallName) + "': No space left on device");
  test::fault_plan = {};
  fs::remove(dir.file(kSmallName));
  fs::create_symlink("/proc/self/mem", dir.file(kSmallName));  // a file whose first byte can't be read
  log.take();
  EXPECT_EQ(failure(), "cannot read '" + dir.file(kSmallName) + "': Input/output error");
  EXPECT_EQ(log.take(), std::vector<std::string>()) << "no masks were made";
}

TEST(MaskCache, ReplacesAFileThatDoesNotFit) {
  const std::string mismatch = "[INFO ] MaskCache: params mismatch, regenerating.";
  const std::string bad_hash = "[WARN ] MaskCache: CRC mismatch, regenerating.";
  constexpr std::size_t kWhole = kHeader + 16 * 12 * 2;
  const struct {
    std::vector<std::size_t> flips;  // offsets of bytes to change, one at a time
    std::size_t size;                // where the file is cut off
    const std::string& first_line;
  } cases[] = {{{3, 4, 8, 12, 16, 20, 24}, kWhole, mismatch},
               {{8}, kHeader, mismatch},
               {{48, kHeader, kWhole - 1}, kWhole, bad_hash},
               {{kWhole}, kWhole - 1, kBanner},
               {{kWhole}, kHeader - 1, kBanner},
               {{kWhole}, 0, kBanner}};
  const test::TempDir dir;
  test::LogCapture log;
  const std::string path = dir.file(kSmallName);
  const std::string masks = all_bytes(MaskCache(kSmall, dir.path().string()));
  const std::string good = test::read_all(path);
  ASSERT_EQ(good.size(), kWhole);
  for (const auto& c : cases)
    for (const std::size_t flip : c.flips) {
      SCOPED_TRACE(testing::Message() << "byte " << flip << " of " << c.size);
      std::string bad = good;
      if (flip < kWhole) bad[flip] ^= 1;
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
  const auto make = [&](const std::vector<fs::path>& folders, const fs::path& share = {}) {
    log.take();
    EXPECT_TRUE(MaskCache(kSmall, folders, share).valid());
    return log.take();
  };
  const std::string loaded = "[INFO ] MaskCache: loaded from " + (second / kSmallName).string();

  auto lines = make({blocked, second});
  EXPECT_THAT(
      std::vector(lines.end() - 4, lines.end()),
      ElementsAre("[WARN ] MaskCache: cannot create cache dir " + blocked.string() + " (Not a directory)",
                  testing::AllOf(testing::StartsWith("[WARN ] MaskCache: cannot create '" +
                                                     (blocked / kSmallName).string()),
                                 testing::HasSubstr("' (440 bytes wanted): Not a directory")),
                  "[WARN ] MaskCache: could not save to " + (blocked / kSmallName).string(),
                  "[INFO ] MaskCache: saved to " + (second / kSmallName).string()));
  fs::create_directory(first);
  test::write_all((first / kSmallName).string(), "BMSK");
  EXPECT_THAT(make({blocked, first, dir.path() / "c", second}), ElementsAre(loaded));
  EXPECT_EQ(fs::file_size(first / kSmallName), 4u);
  EXPECT_FALSE(fs::exists(dir.path() / "c"));
  EXPECT_THAT(make({blocked}, second), ElementsAre(loaded));
  EXPECT_EQ(make({blocked, blocked}, dir.path() / "c").back(),
            "[WARN ] MaskCache: could not save (not critical)");
  EXPECT_FALSE(fs::exists(dir.path() / "c")) << "shared masks are never written";

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
  EXPECT_EQ(mask_share_folder(), beside.parent_path().parent_path() / "share/nvo_rip/bn_cache");
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
  for (long n = 2; failed; ++n) {  // the first call looks for the file
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
    for (const int y : {0, 7, 25, -1, -13})
      for (const int x : {0, 11, 40, -1, -29})
        for (const int channel : {2, -1, 5})  // sixty tiles on all coordinates are positive
          EXPECT_EQ(cache.at(channel, x, y), cache.row(2, (y + 60 * h) % h)[(x + 60 * w) % w]);
    EXPECT_EQ(cache.row(4, 3 * h + 2), cache.row(1, 2));
  }
}

TEST(MaskCache, RejectsBadParameters) {
  const test::LogCapture quiet;
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
      {{16, 16, 1, 64.01f}, sigma},   {{16, 16, 1, 1e-30f}, "invalid V&C generation parameters"},
  };
  for (const auto& [params, message] : cases)
    EXPECT_EQ(failure_of([&params = params] { MaskCache(params, std::vector<fs::path>{}); }),
              "MaskCache: " + message);

  // The generator has limits of its own.
  std::uint8_t mask[2];
  const auto generate = [&](std::uint8_t* out, int w, int h, float of_sigma) {
    return failure_of([&] { generate_mask(out, w, h, 1, of_sigma); });
  };
  EXPECT_EQ(generate(mask, 2, 1, 64.0f), "");
  for (const auto& failure : {generate(nullptr, 2, 1, 1.5f), generate(mask, 0, 2, 1.5f),
                              generate(mask, 2, -1, 1.5f), generate(mask, 2, 1, 64.5f)})
    EXPECT_EQ(failure, "MaskCache: invalid V&C generation parameters");
  for (const int w : {1, 0x7FFFFFFF})
    EXPECT_EQ(generate(mask, w, w, 1.5f), "MaskCache: V&C tile size is out of supported range");
}

}  // namespace
}  // namespace nvo
