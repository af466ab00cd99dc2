#include "compose/strip_compositor.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "compose/content_signature.h"
#include "compose/fifo_cache.h"
#include "compose/item_caches.h"
#include "compose/plain_item.h"
#include "image/image_loader.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

using test::LogCapture;
using test::ScopedVariable;
using test::TempDir;
using test::TiffFile;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::uint32_t kDpi = 100;

float inches(int pixels) {
  return static_cast<float>(pixels) / static_cast<float>(kDpi);
}

/// An item of so many pixels at 100 dpi.
LayoutItem item_at(const std::string& path, int x, int y, int width, int height, bool rotated = false) {
  return {"", "", path, inches(x), inches(y), inches(width), inches(height), rotated};
}

/// With so many threads the work is always shared out; 0 leaves it to the rules.
StripCompositorConfig sheet(int width, int height, std::uint32_t threads = 0) {
  StripCompositorConfig config;
  if (threads != 0)
    config.threads.compose = {threads > 1 ? WorkDivision::always : WorkDivision::never, threads};
  config.sheet_width_in = inches(width);
  config.sheet_height_in = inches(height);
  config.src_dpi = kDpi;
  config.strip_h_px = 64;
  return config;
}

bool same_bytes(const StripBuffer& a, const StripBuffer& b) {
  return a.width == b.width && a.planes == b.planes && a.explicit_white == b.explicit_white;
}

/// Files of one test.
class StripCompositorTest : public testing::Test {
 protected:
  std::string write(const std::string& name, const TiffFile& file) {
    test::write_tiff(dir.file(name), file);
    return dir.file(name);
  }

  /// Opaque CMYK of one colour.
  std::string flat_cmyk(const std::string& name, std::uint8_t cyan, std::uint32_t width = 8,
                        std::uint32_t height = 8) {
    TiffFile file = test::cmykw_tiff(width, height, [cyan](std::uint32_t, std::uint32_t, std::uint8_t* p) {
      p[0] = cyan, p[1] = 1, p[2] = 2, p[3] = 3;
    });
    file.samples = 4, file.extra_samples = {};
    return write(name, file);
  }

  /// RGBA whose every pixel differs from its neighbours.
  std::string busy_rgba(const std::string& name, std::uint32_t width, std::uint32_t height) {
    TiffFile file = test::cmykw_tiff(width, height, [](std::uint32_t x, std::uint32_t y, std::uint8_t* p) {
      p[0] = static_cast<std::uint8_t>(x * 7 + y), p[1] = static_cast<std::uint8_t>(y * 5 + x * x);
      p[2] = static_cast<std::uint8_t>(x ^ y);
      p[3] = x / 9 % 3 == 0 ? 0 : static_cast<std::uint8_t>(y * 3 + x);
    });
    file.samples = 4, file.photometric = PHOTOMETRIC_RGB, file.extra_samples = {EXTRASAMPLE_UNASSALPHA};
    file.compression = COMPRESSION_NONE;
    return write(name, file);
  }

  /// What the compositor itself has warned of since the last call.
  std::vector<std::string> take_own() {
    std::vector<std::string> lines = log.take();
    std::erase_if(lines, [](const std::string& line) {
      return !line.starts_with("[WARN ]") || line.find("StripCompositor: ") == std::string::npos;
    });
    return lines;
  }

  const TempDir dir;
  LogCapture log;
};

TEST_F(StripCompositorTest, ItemsLandWhereTheyAreClipped) {
  const std::string path = flat_cmyk("a.tif", 77);
  const struct {
    int x, y, width, height;
    int x0, y0, x1, y1;  // of the strip's rows 10 .. 29; empty for none
  } cases[] = {{5, 12, 8, 8, 5, 12, 13, 20}, {-5, 12, 8, 8, 0, 12, 3, 20}, {36, 12, 8, 8, 36, 12, 40, 20},
               {3, 6, 8, 8, 3, 10, 11, 14},  {3, 25, 8, 8, 3, 25, 11, 30}, {3, 2, 8, 8, 0, 0, 0, 0},
               {3, 30, 8, 8, 0, 0, 0, 0},    {3, 12, 0, 8, 3, 12, 4, 20},  {-9, 0, 99, 50, 0, 10, 40, 30}};
  for (const auto& c : cases) {
    StripCompositor compositor(sheet(40, 60));
    compositor.set_layout({{item_at(path, c.x, c.y, c.width, c.height)}, 0.6f});
    const StripBuffer strip = compositor.compose_strip(10, 20);
    ASSERT_EQ(strip.width, 40u);
    for (int i = 0; i < 40 * 20; ++i) {
      const int x = i % 40, y = 10 + i / 40;
      const bool inside = x >= c.x0 && x < c.x1 && y >= c.y0 && y < c.y1;
      ASSERT_EQ(strip.planes[0][i], inside ? 77 : 0)
          << x << ", " << y << " of an item at " << c.x << ", " << c.y;
      ASSERT_EQ(strip.planes[4][i], inside ? 255 : 0) << x << ", " << y;
    }
  }
}

TEST_F(StripCompositorTest, LaterItemsReplaceEarlierOnesWithoutBlending) {
  TiffFile file = test::cmykw_tiff(4, 1, [](std::uint32_t x, std::uint32_t, std::uint8_t* p) {
    const std::uint8_t alpha[] = {0, 1, 254, 255};
    p[0] = 200, p[1] = p[2] = p[3] = 0, p[4] = 55, p[5] = alpha[x];
  });
  file.samples = 6, file.extra_samples.push_back(EXTRASAMPLE_UNASSALPHA);
  const std::string veil = write("veil.tif", file);
  const std::string base = flat_cmyk("base.tif", 9, 4, 2);
  StripCompositor compositor(sheet(4, 3));
  compositor.set_layout({{item_at(base, 0, 0, 4, 1), item_at(veil, 0, 0, 4, 1)}, 0.01f});
  const StripBuffer strip = compositor.compose_strip(0, 1);
  EXPECT_THAT(strip.planes[0], ElementsAre(9, 1, 199, 200));
  EXPECT_THAT(strip.planes[1], ElementsAre(1, 0, 0, 0));
  EXPECT_THAT(strip.planes[4], ElementsAre(255, 1, 199, 200));
  EXPECT_THAT(strip.explicit_white, ElementsAre(0, 255, 255, 255));
  // Paint order is that of the layout, wherever on the sheet the items begin.
  compositor.set_layout({{item_at(veil, 0, 1, 4, 2), item_at(base, 0, 0, 4, 3)}, 0.03f});
  const StripBuffer covered = compositor.compose_strip(0, 3);
  EXPECT_THAT(covered.planes[0], Each(9));
  EXPECT_THAT(covered.explicit_white, Each(0));
}

TEST_F(StripCompositorTest, ThreadsAndSpentStripsChangeNoByte) {
  const std::string path = busy_rgba("a.tif", 90, 70), big = busy_rgba("big.tif", 1100, 900);
  SheetLayout gang;
  for (int i = 0; i < 12; ++i)
    gang.items.push_back(item_at(path, i % 4 * 101 - 3, i / 4 * 40, 60 + i * 3, 38));
  gang.items.push_back(item_at(path, 420, 0, 70, 90, true));
  const SheetLayout single{{item_at(big, 3, 2, 1100, 900)}, 0};
  const SheetLayout direct{{item_at(big, 3, 2, 8000, 6300)}, 0};  // beyond the size of a prepared raster

  for (const SheetLayout& layout : {gang, single, direct}) {
    std::vector<StripBuffer> strips;
    for (const std::uint32_t threads : {1u, 2u, 5u, 16u, 0u}) {
      StripCompositor compositor(sheet(1200, 1000, threads));
      compositor.set_layout(layout);
      StripBuffer spent;
      if (!strips.empty()) spent.planes.fill(Plane(123, 0xEE));
      if (!strips.empty()) spent.explicit_white.assign(2000000, 0xEE);
      strips.push_back(compositor.compose_strip(7, 600, std::move(spent)));
      EXPECT_TRUE(same_bytes(strips.back(), strips.front())) << threads;
    }
    EXPECT_THAT(strips[0].planes[4], Contains(testing::Ne(0)));
  }
}

TEST_F(StripCompositorTest, ThreadsWithConvertersOfTheirOwnGiveTheSameColour) {
  const std::string profile = "/usr/share/color/icc/ghostscript/default_cmyk.icc";  // package libgs-common
  if (!std::filesystem::exists(profile)) GTEST_SKIP() << profile << " is not installed";
  const std::string rgba = busy_rgba("rgba.tif", 200, 150), cmyk = flat_cmyk("cmyk.tif", 90, 200, 150);
  const std::string none = dir.file("none.icc");
  for (const int second_x : {200, 90}) {  // side by side and overlapping
    const SheetLayout layout{{item_at(cmyk, 0, 0, 200, 150), item_at(rgba, second_x, 0, 200, 150)}, 0};
    StripCompositor plain(sheet(400, 150)), serial(sheet(400, 150, 1)), parallel(sheet(400, 150, 3));
    for (StripCompositor* compositor : {&plain, &serial, &parallel}) compositor->set_layout(layout);
    for (StripCompositor* compositor : {&serial, &parallel})
      compositor->set_icc_settings({true, "", profile, profile, 1, true});
    const StripBuffer without = plain.compose_strip(0, 150);
    const StripBuffer converted = serial.compose_strip(0, 150);
    EXPECT_FALSE(same_bytes(converted, without)) << "the profile has an effect";
    EXPECT_TRUE(same_bytes(parallel.compose_strip(0, 150), converted));
    EXPECT_THAT(take_own(), IsEmpty());
    // No raster of other settings is used. Profiles that cannot be had cost no item.
    serial.set_icc_settings({true, "", profile, none, 1, true});
    EXPECT_TRUE(same_bytes(serial.compose_strip(0, 150), without));
    EXPECT_THAT(take_own(), ElementsAre(StartsWith("[WARN ] StripCompositor: CMYK->CMYK ICC: "),
                                        StartsWith("[WARN ] StripCompositor: RGB->CMYK ICC unavailable")));
  }
}

TEST_F(StripCompositorTest, ItemsOfOneFileShareItAndDoNotMixUp) {
  const std::string path = busy_rgba("a.tif", 40, 40);
  const std::vector<LayoutItem> items = {item_at(path, 0, 0, 40, 40), item_at(path, 50, 0, 40, 40, true),
                                         item_at(path, 100, 0, 40, 50), item_at(path, 150, 0, 44, 40)};
  for (const bool hard : {true, false}) {
    StripCompositorConfig config = sheet(200, 50);
    config.white_resampling_mode = hard ? ResamplingMode::hard : ResamplingMode::smooth;
    StripCompositor together(config);
    together.set_profiling(true);
    together.set_layout({items, 0.5f});
    const StripBuffer strip = together.compose_strip(0, 50);
    StripBuffer joined = strip;
    for (auto& plane : joined.planes) std::ranges::fill(plane, std::uint8_t{0});
    for (const LayoutItem& item : items) {
      StripCompositor alone(config);
      alone.set_layout({{item}, 0.5f});
      const StripBuffer part = alone.compose_strip(0, 50);
      for (std::size_t i = 0; i < part.planes.size(); ++i)
        std::ranges::transform(part.planes[i], joined.planes[i], joined.planes[i].begin(), std::bit_or<>());
    }
    EXPECT_TRUE(same_bytes(strip, joined));

    // All but the first raster find the file's classification; what is found again needs none.
    EXPECT_TRUE(same_bytes(together.compose_strip(0, 50), strip));
    together.compose_strip(45, 5);
    const CompositorCounters n = together.read_counters();
    EXPECT_THAT((std::vector{n.strips, n.items_seen, n.items_blitted, n.full_load_items,
                             n.white_classify_misses, n.white_classify_hits}),
                hard ? ElementsAre(3, 9, 9, 9, 1, 3) : ElementsAre(3, 9, 9, 9, 0, 4));
    EXPECT_TRUE(n.pixels_written > 0 && n.blit_ns >= n.image_load_ns + n.source_open_ns);

    // Nor does a file mix with what it was before.
    flat_cmyk("a.tif", 20);
    EXPECT_EQ(together.compose_strip(0, 8).planes[0][0], 20);
    busy_rgba("a.tif", 40, 40);
  }
}

TEST_F(StripCompositorTest, LargeSourceByRowsEqualsTheLoadedImage) {
  const std::string path = busy_rgba("large.tif", 2100, 2000);
  StripCompositor compositor(sheet(2100, 2000));
  compositor.set_profiling(true);
  compositor.set_layout({{item_at(path, 0, 0, 1900, 2600)}, 26.0f});
  const LoadedImage image = load_image(path);
  const ItemPlacement place{0, 0, 1900, 2600};
  for (const std::uint32_t y : {2580u, 700u, 0u}) {
    const StripBuffer strip = compositor.compose_strip(y, 50);
    StripBuffer expected = strip;
    for (auto& plane : expected.planes) std::ranges::fill(plane, std::uint8_t{0});
    test::PlainItem(image, false, {}, place, false).compose(rows_on_strip(place, strip), {}, expected);
    EXPECT_TRUE(same_bytes(strip, expected)) << y;
  }
  EXPECT_EQ(compositor.read_counters().lowmem_items, 3u);
  EXPECT_EQ(compositor.read_counters().full_load_items, 0u);
  EXPECT_TRUE(log.contains("TIFF low-memory row path active for '" + path + "' y=0..38"));

  // Two copies at once share the source, which serves one thread at a time.
  const SheetLayout copies{{item_at(path, 0, 0, 300, 280), item_at(path, 300, 9, 310, 250)}, 3.0f};
  std::vector<StripBuffer> strips;
  for (const std::uint32_t threads : {1u, 2u}) {
    StripCompositor sharing(sheet(2100, 2000, threads));
    sharing.set_profiling(true);
    sharing.set_layout(copies);
    strips.push_back(sharing.compose_strip(0, 290));
    EXPECT_EQ(sharing.read_counters().lowmem_items, 2u);
  }
  EXPECT_TRUE(same_bytes(strips[0], strips[1]));

  // Turned, it has to be loaded whole.
  compositor.set_layout({{item_at(path, 0, 0, 50, 50, true)}, 0.5f});
  compositor.compose_strip(0, 50);
  EXPECT_EQ(compositor.read_counters().full_load_items, 1u);
  EXPECT_TRUE(log.contains("TIFF low-memory fallback for rotated item '" + path +
                           "': rotated mapping currently uses full-load path"));
}

TEST_F(StripCompositorTest, UnreadableItemsAreLoggedAndLeftOut) {
  const std::string missing = dir.file("missing.tif"), good = flat_cmyk("good.tif", 50);
  StripCompositor compositor(sheet(20, 8));
  compositor.set_layout({{item_at(missing, 0, 0, 8, 8), item_at(good, 10, 0, 8, 8)}, 0.08f});
  const StripBuffer strip = compositor.compose_strip(0, 8);
  EXPECT_EQ(std::ranges::count(strip.planes[0], 50), 64);
  EXPECT_EQ(std::ranges::count(strip.planes[4], 255), 64);
  EXPECT_THAT(take_own(),
              ElementsAre(StartsWith("[WARN ] StripCompositor: cannot open raster source: " + missing + ": "),
                          StartsWith("[WARN ] StripCompositor: cannot open: " + missing + ": ")));

  // A large file with a damaged middle: rows fail, the whole load fails, nothing is printed of it. Every
  // strip says so, but only the first one decodes the whole file, once for its rows and once to load it.
  const std::string damaged = flat_cmyk("damaged.tif", 50, 2100, 2000);
  test::damage_piece(damaged, 30);
  compositor.set_layout({{item_at(damaged, 0, 0, 20, 8)}, 0.08f});
  const auto row_warning =
      StartsWith("[WARN ] StripCompositor: TIFF low-memory row read fallback for '" + damaged + "': ");
  for (const std::size_t band_reads : {3u, 1u}) {
    EXPECT_THAT(compositor.compose_strip(0, 8).planes[4], Each(0));
    EXPECT_EQ(log.count("[ERROR] libtiff: "), band_reads);
    EXPECT_THAT(take_own(),
                ElementsAre(testing::AllOf(row_warning, HasSubstr(" [fallback full-image decode (")),
                            StartsWith("[WARN ] StripCompositor: cannot open: " + damaged + ": ")));
  }
}

TEST_F(StripCompositorTest, EmptyStripsStayBlankAndOthersGetTheInkLimitOrTheChoke) {
  StripCompositorConfig config = sheet(8, 100);
  config.white_ink_limit_enabled = true;
  StripCompositor compositor(config);
  compositor.set_layout({{item_at(flat_cmyk("a.tif", 255), 0, 0, 8, 8)}, 1.0f});
  const StripBuffer blank = compositor.compose_strip(20, 0);
  EXPECT_EQ(blank.height, 64u);
  EXPECT_THAT(blank.planes[4], Each(0));
  const StripBuffer strip = compositor.compose_strip(0, 16);
  EXPECT_EQ(strip.planes[4][0], 126) << "room of 300 - 102.4 percent of 400";
  EXPECT_EQ(strip.planes[4][100], 0);

  config = sheet(12, 100);
  config.source_grid_choke_enabled = true;
  config.white_choke_amount_px_at_300dpi = 3;  // one pixel
  config.white_choke_strategy = WhiteChokeStrategy::baseline;
  StripCompositor choking(config);
  choking.set_layout({{item_at(flat_cmyk("a.tif", 255), 0, 0, 8, 8)}, 1.0f});
  const StripBuffer spread = choking.compose_strip(0, 1);
  EXPECT_THAT(spread.planes[0], ElementsAre(255, 255, 255, 255, 255, 255, 255, 255, 255, 0, 0, 0));
}

TEST_F(StripCompositorTest, InertSwitchesOnlyWarnOnce) {
  const SheetLayout layout{{item_at(flat_cmyk("a.tif", 10), 0, 0, 8, 8)}, 0.08f};
  const auto compose = [&] {
    StripCompositor compositor(sheet(8, 8));
    compositor.set_layout(layout);
    return compositor.compose_strip(0, 8);
  };
  const StripBuffer plain = compose();
  for (const char* word : {"", "0", "False", "off", "NO", "maybe", "1"}) {
    const ScopedVariable inert("NVO_RIP_FORCE_LOW_MEMORY_IMAGES", word);
    EXPECT_TRUE(same_bytes(compose(), plain));
    EXPECT_EQ(log.count("ignored in production/release: NVO_RIP_FORCE_LOW_MEMORY_IMAGES ("),
              *word == 'm' || *word == '1')
        << word;
  }
}

TEST(FifoCache, OldestGoesFirstHoweverOftenItIsUsed) {
  FifoCache<int> cache(2);
  cache.insert("a", 1);
  cache.insert("b", 2);
  EXPECT_EQ(cache.insert("a", 9), 1) << "the first one stays";
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

TEST_F(StripCompositorTest, CachedCopiesShareOneFile) {
  const std::string path = flat_cmyk("a.tif", 10);
  ItemCaches caches{ThreadPlan()};
  const ContentSignature signature = make_content_signature(path), unknown{signature.key, false};
  const auto image = caches.load_image_cached(signature, path);
  EXPECT_EQ(caches.load_image_cached(signature, path), image);
  EXPECT_NE(caches.load_image_cached(unknown, path), image);
  const auto source = caches.open_raster_source(signature, path);
  const auto other = caches.open_raster_source(unknown, path);
  caches.forget_source(signature, other);
  EXPECT_EQ(caches.open_raster_source(signature, path), source);
  caches.forget_source(signature, source);
  EXPECT_NE(caches.open_raster_source(signature, path), source);
}

TEST(ContentSignature, TellsApartWhatIsKnownOfAFile) {
  const TempDir dir;
  const std::string path = dir.file("a.bin");
  const ContentSignature missing = make_content_signature(path);
  EXPECT_FALSE(missing.valid || make_content_signature(dir.path()).valid);
  test::write_all(path, "hello");
  const auto time = std::filesystem::last_write_time(path);
  const ContentSignature first = make_content_signature(dir.file("./x/../a.bin"));
  EXPECT_TRUE(first.valid && first.key != missing.key);
  EXPECT_EQ(make_content_signature(path).key, first.key);
  test::write_all(path, "hallo");
  std::filesystem::last_write_time(path, time);
  EXPECT_NE(make_content_signature(path).key, first.key) << "content alone tells them apart";
  test::write_all(path, "hello");
  std::filesystem::last_write_time(path, time + std::chrono::nanoseconds(1000));
  EXPECT_NE(make_content_signature(path).key, first.key) << "time alone tells them apart";
}

}  // namespace
}  // namespace nvo
