#include "image/image_loader.h"

#include "image/image_test.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

using ImageLoaderTest = ImageTest;

TEST_F(ImageLoaderTest, WhiteCoverageComesFromWhiteElseAlphaElseIsFull) {
  const std::uint16_t cmyk = PHOTOMETRIC_SEPARATED, rgb = PHOTOMETRIC_RGB;
  const struct {
    TiffFile file;
    int alpha;
    Bytes white_coverage;
    Bytes gray_pixels = {};  ///< delivered as RGB; the second alpha is none
  } cases[] = {
      // The samples of the two pixels are 3, 14, 25 and so on.
      {{.samples = 6, .photometric = cmyk, .extra_samples = {1, 0}}, 4, {255 - 58, 255 - 124}},
      {{.samples = 4, .photometric = rgb, .extra_samples = {2}}, 3, {36, 80}},
      {{.samples = 3, .photometric = rgb}, -1, {255, 255}},
      {{.samples = 3, .extra_samples = {2, 1}}, 3, {14, 47}, {3, 3, 3, 14, 36, 36, 36, 47}},
      {{.samples = 1}, -1, {255, 255}, {3, 3, 3, 14, 14, 14}},
  };
  for (const auto& c : cases) {
    TiffFile file = c.file;
    file.width = 2, file.height = 1;
    write_tiff(dir_.file("A.TIF"), file);
    const LoadedImage image = load_image(dir_.file("A.TIF"));
    const bool is_cmyk = file.photometric == cmyk, is_gray = !c.gray_pixels.empty();
    EXPECT_TRUE(image.is_cmyk == is_cmyk && image.is_rgb == !is_cmyk && image.is_gray == is_gray);
    EXPECT_EQ(image.role_index(ChannelRole::alpha), c.alpha);
    EXPECT_EQ(image.has_alpha, c.alpha >= 0);
    EXPECT_EQ(image.pixels, is_gray ? c.gray_pixels : file.pixels());
    EXPECT_EQ(image.white_coverage, c.white_coverage);
  }
}

TEST_F(ImageLoaderTest, NamesTheFileThatFails) {
  const std::string path = write("a.tif", "II*");
  EXPECT_EQ(failure_of([&] { load_image(path); }),
            "ImageLoader: failed to load TIFF '" + path + "': TiffReader: cannot open '" + path + "'");
}

TEST(WhiteCoverage, RefusesRecordsThatContradictThemselves) {
  const auto failure = [](std::uint32_t width, std::uint32_t height, std::uint16_t channels,
                          std::size_t bytes, std::vector<ChannelInfo> roles = {}) {
    LoadedImage record;
    record.width = width, record.height = height, record.channel_count = channels;
    record.pixels.resize(bytes);
    record.channels = std::move(roles);
    return failure_of([&] { build_white_coverage(record); });
  };
  EXPECT_EQ(failure(0, 0, 0, 0), "");
  for (const std::string& text : {failure(0, 1, 0, 0), failure(0, 0, 0, 1), failure(1, 0, 3, 0)})
    EXPECT_EQ(text, "ImageLoader: inconsistent LoadedImage geometry for white coverage");
  EXPECT_EQ(failure(2, 2, 3, 11), "ImageLoader: interleaved pixel buffer size mismatch for white coverage");
  EXPECT_EQ(failure(0xFFFFFFFF, 0xFFFFFFFF, 2, 1), "ImageLoader: white coverage pixel buffer size overflow");
  EXPECT_EQ(failure(2, 2, 4, 16, {{ChannelRole::spot, "s", 9}, {ChannelRole::alpha, "a", 4}}),
            "ImageLoader: channel map index out of range for white coverage");
}

}  // namespace
}  // namespace nvo::test
