#include "compose/strip_compositor.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plan/compose_threads.h"
#include "compose/content_signature.h"
#include "compose/fifo_cache.h"
#include "compose/item_caches.h"
#include "image/image_loader.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

using test::LogCapture;
using test::TempDir;
using test::TiffFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::uint32_t kDpi = 100;

/// Sets a variable of the environment while it lives; null takes it away.
class WithVariable {
 public:
  WithVariable(const char* name, const char* value) : name_(name) {
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~WithVariable() { ::unsetenv(name_); }

 private:
  const char* name_;
};

/// An item of so many pixels at 100 dpi.
LayoutItem item_at(const std::string& path, int x, int y, int width, int height) {
  LayoutItem item;
  item.path = path;
  const auto inches = [](int pixels) { return static_cast<float>(pixels) / static_cast<float>(kDpi); };
  item.x_in = inches(x), item.y_in = inches(y), item.width_in = inches(width),
  item.height_in = inches(height);
  return item;
}

StripCompositorConfig sheet(int width, int height) {
  StripCompositorConfig config;
  config.sheet_width_in = static_cast<float>(width) / static_cast<float>(kDpi);
  config.sheet_height_in = static_cast<float>(height) / static_cast<float>(kDpi);
  config.src_dpi = kDpi;
  config.strip_h_px = 64;
  return config;
}

bool same_bytes(const StripBuffer& a, const StripBuffer& b) {
  return a.width == b.width && a.planes == b.planes && a.explicit_white == b.explicit_white;
}

/// What the compositor itself has logged since the last call.
std::vector<std::string> take_own(LogCapture& log) {
  std::vector<std::string> lines = log.take();
  std::erase_if(lines,
                [](const std::string& line) { return line.find("StripCompositor: ") == std::string::npos; });
  return lines;
}

/// An opaque CMYK file of one colour.
std::string flat_cmyk(const TempDir& dir, const std::string& name, std::uint8_t cyan, std::uint32_t width = 8,
                      std::uint32_t height = 8) {
  TiffFile file = test::cmykw_tiff(width, height, nullptr);
  file.samples = 4;
  file.extra_samples = {};
  file.pixel = [cyan](std::uint32_t, std::uint32_t, std::uint8_t* p) {
    p[0] = cyan, p[1] = 1, p[2] = 2, p[3] = 3;
  };
  test::write_tiff(dir.file(name), file);
  return dir.file(name);
}

/// RGBA whose every pixel differs from its neighbours.
std::string busy_rgba(const TempDir& dir, const std::string& name, std::uint32_t width,
                      std::uint32_t height) {
  TiffFile file = test::cmykw_tiff(width, height, nullptr);
  file.samples = 4;
  file.photometric = PHOTOMETRIC_RGB;
  file.extra_samples = {EXTRASAMPLE_UNASSALPHA};
  file.compression = COMPRESSION_NONE;
  file.pixel = [](std::uint32_t x, std::uint32_t y, std::uint8_t* p) {
    p[0] = static_cast<std::uint8_t>(x * 7 + y), p[1] = static_cast<std::uint8_t>(y * 5 + x * x);
    p[2] = static_cast<std::uint8_t>(x ^ y), p[3] = x / 9 % 3 == 0 ? 0 : static_cast<std::uint8_t>(y * 3 + x);
  };
  test::write_tiff(dir.file(name), file);
  return dir.file(name);
}

TEST(StripCompositor, ItemsLandWhereTheyAreClipped) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string path = flat_cmyk(dir, "a.tif", 77);
  struct Case {
    const char* what;
    int x, y, width, height;
    int x0, y0, x1, y1;  ///< of the strip's rows 10 .. 29; empty for none
  };
  for (const Case& c :
       {Case{"inside", 5, 12, 8, 8, 5, 12, 13, 20}, Case{"left of the sheet", -5, 12, 8, 8, 0, 12, 3, 20},
        Case{"beyond its right edge", 36, 12, 8, 8, 36, 12, 40, 20},
        Case{"from the strip above", 3, 6, 8, 8, 3, 10, 11, 14},
        Case{"into the strip below", 3, 25, 8, 8, 3, 25, 11, 30},
        Case{"touches from above", 3, 2, 8, 8, 0, 0, 0, 0},
        Case{"touches from below", 3, 30, 8, 8, 0, 0, 0, 0}, Case{"no width", 3, 12, 0, 8, 3, 12, 4, 20},
        Case{"wider than the sheet", -9, 0, 99, 50, 0, 10, 40, 30}}) {
    StripCompositor compositor(sheet(40, 60));
    compositor.set_layout({{item_at(path, c.x, c.y, c.width, c.height)}, 0.6f});
    const StripBuffer strip = compositor.compose_strip(10, 20);
    ASSERT_EQ(strip.width, 40u);
    ASSERT_EQ(strip.planes.size(), 5u);
    for (int y = 0; y < 20; ++y)
      for (int x = 0; x < 40; ++x) {
        const bool inside = x >= c.x0 && x < c.x1 && y + 10 >= c.y0 && y + 10 < c.y1;
        const auto at = static_cast<std::size_t>(y * 40 + x);
        ASSERT_EQ(strip.planes[0][at], inside ? 77 : 0) << c.what << " at " << x << ", " << y;
        ASSERT_EQ(strip.planes[4][at], inside ? 255 : 0) << c.what << " at " << x << ", " << y;
      }
  }
}

TEST(StripCompositor, LaterItemsReplaceEarlierOnesWithoutBlending) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  TiffFile veil = test::cmykw_tiff(4, 1, nullptr);
  veil.samples = 6;
  veil.extra_samples = {EXTRASAMPLE_UNSPECIFIED, EXTRASAMPLE_UNASSALPHA};
  veil.pixel = [](std::uint32_t x, std::uint32_t, std::uint8_t* p) {
    const std::uint8_t alpha[] = {0, 1, 254, 255};
    p[0] = 200, p[1] = p[2] = p[3] = 0, p[4] = 55, p[5] = alpha[x];
  };
  test::write_tiff(dir.file("veil.tif"), veil);
  const std::string base = flat_cmyk(dir, "base.tif", 9, 4, 1);

  StripCompositor compositor(sheet(4, 1));
  compositor.set_layout({{item_at(base, 0, 0, 4, 1), item_at(dir.file("veil.tif"), 0, 0, 4, 1)}, 0.01f});
  const StripBuffer strip = compositor.compose_strip(0, 1);
  EXPECT_THAT(strip.planes[0], ElementsAre(9, 1, 199, 200));
  EXPECT_THAT(strip.planes[1], ElementsAre(1, 0, 0, 0));
  EXPECT_THAT(strip.planes[4], ElementsAre(255, 1, 199, 200));
  EXPECT_THAT(strip.explicit_white, ElementsAre(0, 255, 255, 255));

  compositor.set_layout({{item_at(dir.file("veil.tif"), 0, 0, 4, 1), item_at(base, 0, 0, 4, 1)}, 0.01f});
  const StripBuffer covered = compositor.compose_strip(0, 1);
  EXPECT_THAT(covered.planes[0], ElementsAre(9, 9, 9, 9));
  EXPECT_THAT(covered.explicit_white, ElementsAre(0, 0, 0, 0));

  // Paint order is that of the layout, wherever on the sheet the items begin.
  StripCompositor tall(sheet(4, 3));
  tall.set_layout(
      {{item_at(flat_cmyk(dir, "under.tif", 5, 4, 2), 0, 1, 4, 2), item_at(base, 0, 0, 4, 3)}, 0.03f});
  EXPECT_THAT(tall.compose_strip(0, 3).planes[0], testing::Each(9));
}

TEST(StripCompositor, ThreadsAndSpentStripsChangeNoByte) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string path = busy_rgba(dir, "a.tif", 90, 70);
  const std::string big = busy_rgba(dir, "big.tif", 1100, 900);
  SheetLayout gang;
  for (int i = 0; i < 12; ++i)
    gang.items.push_back(item_at(path, i % 4 * 101 - 3, i / 4 * 40, 60 + i * 3, 38));
  gang.items.push_back(item_at(path, 420, 0, 70, 90));
  gang.items.back().rotated = true;
  SheetLayout single;
  single.items.push_back(item_at(big, 3, 2, 1100, 900));
  SheetLayout direct = single;  // beyond the size of a prepared raster
  direct.items[0].width_in = 80.0f, direct.items[0].height_in = 63.0f;

  for (const SheetLayout& layout : {gang, single, direct}) {
    std::vector<StripBuffer> strips;
    for (const auto& [mode, threads] :
         {std::pair{"off", "1"}, {"force", "2"}, {"On", "5"}, {"force", "99"}, {"", ""}}) {
      const WithVariable parallel("NVO_RIP_PARALLEL_COMPOSE_ITEMS", mode);
      const WithVariable count("NVO_RIP_COMPOSE_THREADS", threads);
      StripCompositor compositor(sheet(1200, 1000));
      compositor.set_layout(layout);
      StripBuffer spent;
      spent.planes.assign(7, std::vector<std::uint8_t>(123, 0xEE));
      spent.explicit_white.assign(2000000, 0xEE);
      strips.push_back(compositor.compose_strip(7, 600, std::move(spent)));
      EXPECT_TRUE(same_bytes(strips.back(), strips.front())) << mode << " " << threads;
    }
    EXPECT_NE(std::count(strips[0].planes[4].begin(), strips[0].planes[4].end(), 0), 1200 * 600);
  }
}

TEST(StripCompositor, ThreadsWithConvertersOfTheirOwnGiveTheSameColour) {
  const std::string profile = "/usr/share/color/icc/ghostscript/default_cmyk.icc";  // package libgs-common
  if (!std::filesystem::exists(profile)) GTEST_SKIP() << profile << " is not installed";
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string rgba = busy_rgba(dir, "rgba.tif", 200, 150);
  const std::string cmyk = flat_cmyk(dir, "cmyk.tif", 90, 200, 150);
  const SheetLayout gang{{item_at(rgba, 0, 0, 200, 150), item_at(cmyk, 200, 0, 200, 150)}, 1.5f};
  const SheetLayout overlapping{{item_at(cmyk, 0, 0, 200, 150), item_at(rgba, 90, 0, 200, 150)}, 1.5f};
  for (const SheetLayout& layout : {gang, overlapping}) {
    std::vector<StripBuffer> strips;
    for (const char* mode : {"off", "force"}) {
      const WithVariable parallel("NVO_RIP_PARALLEL_COMPOSE_ITEMS", mode);
      const WithVariable count("NVO_RIP_COMPOSE_THREADS", "3");
      StripCompositor compositor(sheet(400, 150));
      compositor.set_icc_settings({true, "", profile, profile, 1, true});
      compositor.set_layout(layout);
      strips.push_back(compositor.compose_strip(0, 150));
    }
    EXPECT_TRUE(same_bytes(strips[0], strips[1]));
    StripCompositor plain(sheet(400, 150));
    plain.set_layout(layout);
    EXPECT_FALSE(same_bytes(strips[0], plain.compose_strip(0, 150))) << "the profile has an effect";
  }
}

TEST(StripCompositor, LargeSourceByRowsEqualsTheLoadedImage) {
  const TempDir dir;
  LogCapture log;
  const std::string path = busy_rgba(dir, "large.tif", 2100, 2000);
  StripCompositor compositor(sheet(2100, 2000));
  compositor.set_profiling(true);
  compositor.set_layout({{item_at(path, 0, 0, 1900, 2600)}, 26.0f});
  const LoadedImage image = load_image(path);
  const ItemPlacement place{0, 0, 1900, 2600};
  const ItemGrid grid = make_item_grid(image, false, place);
  const ItemTraits traits = make_item_traits(image, grid, {}, false);
  const ColumnMap columns(0, 1900, 1900, 2100, traits.box);
  PreparedItemRaster raster(1900, 2600, traits.has_white);
  RowRasterizer(view_image(image, false, traits), traits, grid, columns, {})
      .raster_rows({0, 2600}, raster.target());

  for (const std::uint32_t y : {2500u, 700u, 0u}) {
    const StripBuffer strip = compositor.compose_strip(y, 200);
    StripBuffer expected = strip;
    for (auto* plane : {&expected.planes[0], &expected.planes[1], &expected.planes[2], &expected.planes[3],
                        &expected.planes[4], &expected.explicit_white})
      std::fill(plane->begin(), plane->end(), std::uint8_t{0});
    std::uint64_t written = 0;
    blit_prepared_raster(raster, place, expected, rows_on_strip(place, strip), written);
    EXPECT_TRUE(same_bytes(strip, expected)) << y;
  }
  const CompositorCounters counters = compositor.read_counters();
  EXPECT_EQ(counters.strips, 3u);
  EXPECT_EQ(counters.lowmem_items, 3u);
  EXPECT_EQ(counters.full_load_items, 0u);
  EXPECT_THAT(log.lines(),
              testing::Contains(HasSubstr("TIFF low-memory row path active for '" + path + "' y=0..153")));

  // Two copies at once share the source, which serves one thread at a time.
  std::vector<StripBuffer> pairs;
  for (const char* mode : {"off", "force"}) {
    const WithVariable parallel("NVO_RIP_PARALLEL_COMPOSE_ITEMS", mode);
    const WithVariable count("NVO_RIP_COMPOSE_THREADS", "2");
    compositor.set_layout({{item_at(path, 0, 0, 300, 280), item_at(path, 300, 9, 310, 250)}, 3.0f});
    pairs.push_back(compositor.compose_strip(0, 290));
  }
  EXPECT_TRUE(same_bytes(pairs[0], pairs[1]));
  EXPECT_EQ(compositor.read_counters().lowmem_items, 7u);

  // Turned, it has to be loaded whole; the row source is given up for that.
  LayoutItem turned = item_at(path, 0, 0, 50, 50);
  turned.rotated = true;
  compositor.set_layout({{turned}, 0.5f});
  log.take();
  compositor.compose_strip(0, 50);
  EXPECT_EQ(compositor.read_counters().full_load_items, 1u);
  EXPECT_THAT(log.lines(), testing::Contains(HasSubstr("TIFF low-memory fallback for rotated item '" + path +
                                                       "': rotated mapping currently uses full-load path")));
}

TEST(StripCompositor, UnreadableItemsAreLoggedAndLeftOut) {
  const TempDir dir;
  LogCapture log(LogLevel::warn);
  const std::string missing = dir.file("missing.tif");
  const std::string good = flat_cmyk(dir, "good.tif", 50);
  StripCompositor compositor(sheet(20, 8));
  compositor.set_layout({{item_at(missing, 0, 0, 8, 8), item_at(good, 10, 0, 8, 8)}, 0.08f});
  const StripBuffer strip = compositor.compose_strip(0, 8);
  EXPECT_EQ(std::count(strip.planes[0].begin(), strip.planes[0].end(), 50), 64);
  EXPECT_EQ(std::count(strip.planes[4].begin(), strip.planes[4].end(), 255), 64);
  EXPECT_THAT(take_own(log),
              ElementsAre(StartsWith("[WARN ] StripCompositor: cannot open raster source: " + missing + ": "),
                          StartsWith("[WARN ] StripCompositor: cannot open: " + missing + ": ")));

  // A large file with a damaged middle: rows fail, the whole load fails, nothing is printed of it.
  const std::string damaged = flat_cmyk(dir, "damaged.tif", 50, 2100, 2000);
  std::string bytes = test::read_all(damaged);
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2), bytes.size() / 4, '\xFF');
  test::write_all(damaged, bytes);
  compositor.set_layout({{item_at(damaged, 0, 0, 20, 8)}, 0.08f});
  // Every strip says so, but only the first one decodes the whole file, once for its rows and once to load
  // it.
  for (const std::size_t band_reads : {3u, 1u}) {
    EXPECT_THAT(compositor.compose_strip(0, 8).planes[4], testing::Each(0));
    EXPECT_EQ(log.count("[ERROR] libtiff: "), band_reads);
    EXPECT_THAT(
        take_own(log),
        ElementsAre(
            testing::AllOf(StartsWith("[WARN ] StripCompositor: TIFF low-memory row read fallback for '" +
                                      damaged + "': "),
                           HasSubstr(" [fallback full-image decode (")),
            StartsWith("[WARN ] StripCompositor: cannot open: " + damaged + ": ")));
  }
}

TEST(StripCompositor, ChangedFileShowsItsNewContent) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string path = flat_cmyk(dir, "a.tif", 10);
  StripCompositor compositor(sheet(8, 16));
  compositor.set_layout({{item_at(path, 0, 0, 8, 16)}, 0.16f});
  EXPECT_EQ(compositor.compose_strip(8, 8).planes[0][0], 10);
  const auto written = std::filesystem::last_write_time(path);
  flat_cmyk(dir, "a.tif", 20);
  std::filesystem::last_write_time(path, written + std::chrono::seconds(5));
  EXPECT_EQ(compositor.compose_strip(0, 8).planes[0][0], 20);
}

TEST(StripCompositor, EmptyStripsStayBlankAndOthersGetTheInkLimit) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string path = flat_cmyk(dir, "a.tif", 255);
  StripCompositorConfig config = sheet(8, 100);
  config.white_ink_limit_enabled = true;
  StripCompositor compositor(config);
  compositor.set_profiling(true);
  compositor.set_layout({{item_at(path, 0, 0, 8, 8)}, 1.0f});
  const StripBuffer blank = compositor.compose_strip(20, 0);
  EXPECT_EQ(blank.height, 64u);
  EXPECT_THAT(blank.planes[4], testing::Each(0));
  EXPECT_EQ(compositor.read_counters().white_underbase_ns, 0u);
  const StripBuffer strip = compositor.compose_strip(0, 16);
  EXPECT_EQ(strip.planes[4][0], 126) << "room of 300 - 102.4 percent of 400";
  EXPECT_EQ(strip.planes[4][100], 0);
  EXPECT_GT(compositor.read_counters().white_underbase_ns, 0u);
}

TEST(StripCompositor, CountersAndClassificationFollowTheCaches) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string path = busy_rgba(dir, "a.tif", 40, 40);
  StripCompositorConfig config = sheet(200, 200);
  for (const ResamplingMode mode : {ResamplingMode::smooth, ResamplingMode::hard}) {
    config.white_resampling_mode = mode;
    StripCompositor compositor(config);
    compositor.set_profiling(true);
    compositor.set_layout({{item_at(path, 0, 0, 80, 80), item_at(path, 100, 0, 80, 80),
                            item_at(path, 0, 100, 99, 99), item_at(path, 0, 150, 9, 9)},
                           2.0f});
    compositor.compose_strip(0, 100);
    compositor.compose_strip(40, 80);
    const CompositorCounters counters = compositor.read_counters();
    EXPECT_EQ(counters.strips, 2u);
    EXPECT_EQ(counters.items_seen, 5u);
    EXPECT_EQ(counters.items_blitted, 5u);
    EXPECT_EQ(counters.full_load_items, 5u);
    // Two sizes, hence two rasters, of one file: the second finds the file's classification.
    EXPECT_EQ(counters.white_classify_misses, mode == ResamplingMode::hard ? 1u : 0u);
    EXPECT_EQ(counters.white_classify_hits, mode == ResamplingMode::hard ? 1u : 2u);
    EXPECT_GT(counters.pixels_written, 0u);
    EXPECT_GE(counters.blit_ns, counters.image_load_ns + counters.source_open_ns);
    compositor.reset_counters();
    EXPECT_EQ(compositor.read_counters().pixels_written, 0u);
  }
}

TEST(StripCompositor, ProfileTroubleIsToldAndCostsNoItem) {
  const TempDir dir;
  LogCapture log(LogLevel::warn);
  const std::string cmyk = flat_cmyk(dir, "cmyk.tif", 31);
  const std::string rgba = busy_rgba(dir, "rgba.tif", 8, 8);
  const std::string none = dir.file("none.icc");
  StripCompositor compositor(sheet(8, 32));
  compositor.set_icc_settings({true, "", none, none, 1, true});
  compositor.set_layout(
      {{item_at(cmyk, 0, 0, 8, 8), item_at(rgba, 0, 8, 8, 8), item_at(rgba, 0, 16, 8, 12)}, 0.32f});
  const StripBuffer strip = compositor.compose_strip(0, 32);
  EXPECT_EQ(strip.planes[0][0], 31);
  EXPECT_THAT(log.take(), ElementsAre(StartsWith("[WARN ] StripCompositor: CMYK->CMYK ICC: "),
                                      StartsWith("[WARN ] StripCompositor: RGB->CMYK ICC unavailable")));
  compositor.set_icc_settings({});
  EXPECT_TRUE(same_bytes(compositor.compose_strip(0, 32), strip));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST(StripCompositor, InertSwitchesOnlyWarnOnce) {
  const TempDir dir;
  LogCapture log(LogLevel::warn);
  StripCompositor compositor(sheet(8, 8));
  compositor.set_layout({{item_at(flat_cmyk(dir, "a.tif", 10), 0, 0, 8, 8)}, 0.08f});
  const StripBuffer plain = compositor.compose_strip(0, 8);
  for (const char* no : {"", "0", "False", "off", "NO"}) {
    const WithVariable off("NVO_RIP_FORCE_LOW_MEMORY_IMAGES", no);
    compositor.compose_strip(0, 8);
  }
  EXPECT_THAT(log.take(), IsEmpty());
  const WithVariable on("NVO_RIP_FORCE_LOW_MEMORY_IMAGES", "maybe");
  EXPECT_TRUE(same_bytes(compositor.compose_strip(0, 8), plain));
  EXPECT_TRUE(same_bytes(compositor.compose_strip(0, 8), plain));
  EXPECT_THAT(log.take(),
              ElementsAre(HasSubstr("ignored in production/release: NVO_RIP_FORCE_LOW_MEMORY_IMAGES (")));
}

TEST(ComposeThreads, FollowTheEnvironmentAndTheWork) {
  struct Case {
    const char *mode, *threads;
    std::uint64_t tasks, pixels;
    std::uint32_t at_least, at_most;
  };
  for (const Case& c :
       {Case{nullptr, nullptr, 1, 1u << 30, 1, 1}, Case{nullptr, "7", 40, 0x80000, 7, 7},
        Case{"auto", "7", 40, 0x7FFFF, 1, 1}, Case{"bogus", "7", 3, 0x80000, 3, 3},
        Case{"FORCE", "99", 40, 1, 16, 16}, Case{"Disable", "7", 40, 1u << 30, 1, 1},
        Case{"yes", "0", 40, 1, 2, 12}, Case{"1", "many", 40, 1, 2, 12}, Case{"1", "1", 40, 1, 1, 1}}) {
    const WithVariable mode("NVO_RIP_PARALLEL_COMPOSE_ITEMS", c.mode);
    const WithVariable count("NVO_RIP_COMPOSE_THREADS", c.threads);
    const std::uint32_t threads = compose_threads(c.tasks, c.pixels);
    EXPECT_GE(threads, c.at_least) << (c.mode ? c.mode : "unset");
    EXPECT_LE(threads, c.at_most) << (c.mode ? c.mode : "unset");
  }
}

TEST(FifoCache, OldestGoesFirstHoweverOftenItIsUsed) {
  FifoCache<int> cache(2);
  cache.insert("a", 1);
  cache.insert("b", 2);
  EXPECT_EQ(cache.insert("a", 9), 1) << "the first one stays";
  ASSERT_NE(cache.find("a"), nullptr);
  cache.insert("c", 3);
  EXPECT_EQ(cache.find("a"), nullptr);
  EXPECT_EQ(*cache.find("b"), 2);
  cache.erase("b");
  cache.erase("nobody");
  cache.insert("d", 4);
  EXPECT_EQ(*cache.find("c"), 3) << "erased entries leave room";
  cache.clear();
  EXPECT_EQ(cache.find("d"), nullptr);
}

TEST(ItemCaches, CopiesShareOneFile) {
  const TempDir dir;
  const LogCapture log(LogLevel::warn);
  const std::string path = flat_cmyk(dir, "a.tif", 10);
  ItemCaches caches;
  const ContentSignature signature = make_content_signature(path);
  const auto image = caches.load_image_cached(signature, path);
  EXPECT_EQ(caches.load_image_cached(signature, path), image);
  const ContentSignature unknown{signature.key, false};
  EXPECT_NE(caches.load_image_cached(unknown, path), image);

  const auto source = caches.open_raster_source(signature, path);
  EXPECT_EQ(caches.open_raster_source(signature, path), source);
  const auto other = caches.open_raster_source(unknown, path);
  caches.forget_source(signature, other);
  EXPECT_EQ(caches.open_raster_source(signature, path), source);
  caches.forget_source(signature, source);
  EXPECT_NE(caches.open_raster_source(signature, path), source);
}

TEST(ContentSignature, NamesWhatIsKnownOfAFile) {
  const TempDir dir;
  const auto text = [](const std::string& value) { return std::to_string(value.size()) + ":" + value + "|"; };
  const std::string folder = std::filesystem::canonical(dir.path());
  const std::string path = folder + "/a.bin";
  const ContentSignature missing = make_content_signature(path);
  EXPECT_FALSE(missing.valid);
  EXPECT_EQ(missing.key, "path=" + text(path) + "missing=1:1|");
  EXPECT_FALSE(make_content_signature(folder).valid);

  test::write_all(path, "hello");
  const ContentSignature first = make_content_signature(folder + "/./x/../a.bin");
  EXPECT_TRUE(first.valid);
  const auto time = std::filesystem::last_write_time(path);
  const std::string expected = "path=" + text(path) +
                               "size=5|mtime=" + std::to_string(time.time_since_epoch().count()) +
                               "|fast_sig=16:";
  EXPECT_THAT(first.key, StartsWith(expected));
  EXPECT_EQ(first.key.size(), expected.size() + 17);

  test::write_all(path, "hallo");
  std::filesystem::last_write_time(path, time);
  EXPECT_NE(make_content_signature(path).key, first.key) << "content alone tells them apart";
  test::write_all(path, "hello");
  std::filesystem::last_write_time(path, time + std::chrono::nanoseconds(1000));
  EXPECT_NE(make_content_signature(path).key, first.key) << "time alone tells them apart";
}

}  // namespace
}  // namespace nvo
