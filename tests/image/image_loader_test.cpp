#include "image/image_loader.h"

#include "image/image_test.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

/// Every `step`-th byte from `first` on, each combined with `flip`.
Bytes every(const Bytes& bytes, std::size_t first, std::size_t step, std::uint8_t flip = 0) {
  Bytes taken;
  for (std::size_t i = first; i < bytes.size(); i += step) taken.push_back(bytes[i] ^ flip);
  return taken;
}

class ImageLoaderTest : public ImageTest {
 protected:
  LoadedImage load(const TiffFile& file) {
    write_tiff(dir_.file("A.TIF"), file);
    return load_image(dir_.file("A.TIF"));
  }
};

TEST_F(ImageLoaderTest, WhiteCoverageComesFromWhiteElseAlphaElseIsFull) {
  const TiffFile cmykw{.samples = 6, .photometric = PHOTOMETRIC_SEPARATED, .extra_samples = {1, 0}};
  const LoadedImage with_white = load(cmykw);
  EXPECT_TRUE(with_white.is_cmyk && with_white.has_alpha && !with_white.is_rgb);
  EXPECT_EQ(with_white.pixels, cmykw.pixels());
  EXPECT_EQ(with_white.white_coverage, every(cmykw.pixels(), 5, 6, 0xFF));

  const TiffFile rgba{.samples = 4, .photometric = PHOTOMETRIC_RGB, .extra_samples = {2}};
  EXPECT_EQ(load(rgba).white_coverage, every(rgba.pixels(), 3, 4));
  EXPECT_EQ(load({.samples = 3, .photometric = PHOTOMETRIC_RGB}).white_coverage, Bytes(20, 255));
}

TEST_F(ImageLoaderTest, GrayIsDeliveredAsRgb) {
  // The second alpha is none; the samples of the two pixels are 3, 14, 25 and 36, 47, 58.
  const TiffFile file{
      .samples = 3, .extra_samples = {2, 1}, .width = 2, .height = 1, .x_resolution = 200, .unit = 2};
  const LoadedImage image = load(file);
  EXPECT_TRUE(image.is_gray && image.is_rgb && !image.is_cmyk && image.has_alpha);
  EXPECT_EQ(image.kind, ImageSourceKind::tiff);
  EXPECT_EQ(image.dpi_y, 200.0f);
  EXPECT_EQ(image.role_index(ChannelRole::alpha), 3);
  EXPECT_EQ(image.pixels, (Bytes{3, 3, 3, 14, 36, 36, 36, 47}));
  EXPECT_EQ(image.white_coverage, (Bytes{14, 47}));
  EXPECT_EQ(load({.width = 2, .height = 1}).pixels, (Bytes{3, 3, 3, 14, 14, 14}));
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
