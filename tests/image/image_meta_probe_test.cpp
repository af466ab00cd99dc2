#include "image/image_meta_probe.h"

#include <chrono>
#include <stdexcept>

#include "image/image_format.h"
#include "image/image_test.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

constexpr auto kTiff = static_cast<std::size_t>(ImageSourceKind::tiff);

class ImageMetaProbeTest : public ImageTest {
 protected:
  ImageProbeStats before_ = image_probe_stats();

  /// Hits, misses and TIFF probes since the test began.
  std::string counts() const {
    const ImageProbeStats now = image_probe_stats();
    return std::to_string(now.hits - before_.hits) + " " + std::to_string(now.misses - before_.misses) + " " +
           std::to_string(now.probes[kTiff] - before_.probes[kTiff]);
  }
};

TEST_F(ImageMetaProbeTest, TellsSizeAndResolution) {
  std::filesystem::create_directory(dir_.file("x"));
  const std::string path = dir_.file("x/../a*b.TIFF");
  write_tiff(path, {.width = 70, .height = 30, .x_resolution = 150, .y_resolution = 200, .unit = 2});
  const ImageProbeInfo info = probe_image(path);
  EXPECT_EQ(info.path + info.normalized_path, path + dir_.file("a*b.TIFF"));
  EXPECT_EQ(info.file_name + info.safe_name, "a*b.TIFFa_b.TIFF");
  EXPECT_STREQ(format_traits(info.kind).name, "TIFF");
  EXPECT_THAT((std::vector{info.width, info.height}), ElementsAre(70, 30));
  EXPECT_THAT((std::vector{info.dpi_x, info.dpi_y, info.effective_dpi}), ElementsAre(150, 200, 200));
}

TEST_F(ImageMetaProbeTest, TrustsAFileOnlyWhileItStaysTheSame) {
  const std::string path = dir_.file("a.tif");
  write_tiff(path, {.width = 70});
  const auto time = std::filesystem::last_write_time(path);
  probe_image(path);
  probe_image(dir_.file("./a.tif"));
  EXPECT_EQ(counts(), "1 1 1");

  std::filesystem::last_write_time(path, time + std::chrono::seconds(2));
  probe_image(path);
  EXPECT_EQ(counts(), "1 2 2") << "another time";

  write_tiff(path, {.width = 71});
  std::filesystem::last_write_time(path, time + std::chrono::seconds(2));
  EXPECT_EQ(probe_image(path).width, 71u);
  EXPECT_EQ(counts(), "1 3 3") << "another content";
  probe_image(path);
  EXPECT_EQ(counts(), "2 3 3");

  write_all(path, "damaged");
  EXPECT_THROW(probe_image(path), std::runtime_error);
  EXPECT_THROW(probe_image(path), std::runtime_error);
  EXPECT_EQ(counts(), "2 5 3") << "a failure is never served from the cache";
}

TEST_F(ImageMetaProbeTest, ForgetsTheLeastRecentlyUsed) {
  const auto path = [this](int i) { return dir_.file(std::to_string(i) + ".tif"); };
  for (int i = 0; i < 65; ++i) write_tiff(path(i), {});
  for (int i = 0; i < 64; ++i) probe_image(path(i));
  probe_image(path(0));
  probe_image(path(64));
  EXPECT_EQ(counts(), "1 65 65");
  probe_image(path(0));
  EXPECT_EQ(counts(), "2 65 65") << "used again, so kept";
  probe_image(path(1));
  EXPECT_EQ(counts(), "2 66 66") << "the oldest went";
}

}  // namespace
}  // namespace nvo::test
