#include "image/image_loader.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ThrowsMessage;
using Bytes = std::vector<std::uint8_t>;

/// Every `step`-th byte from `first` on, each combined with `flip`.
Bytes every(const Bytes& bytes, std::size_t first, std::size_t step, std::uint8_t flip = 0) {
  Bytes taken;
  for (std::size_t i = first; i < bytes.size(); i += step) taken.push_back(bytes[i] ^ flip);
  return taken;
}

class ImageLoaderTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_;

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

  const TiffFile rgb{.samples = 3, .photometric = PHOTOMETRIC_RGB};
  EXPECT_EQ(load(rgb).white_coverage, Bytes(20, 255));
}

TEST_F(ImageLoaderTest, GrayIsDeliveredAsRgb) {
  const TiffFile file{.samples = 3, .extra_samples = {2, 1}, .x_resolution = 200, .unit = 2};
  const LoadedImage image = load(file);
  EXPECT_TRUE(image.is_gray && image.is_rgb && !image.is_cmyk && image.has_alpha);
  EXPECT_EQ(image.kind, ImageSourceKind::tiff);
  EXPECT_EQ(image.dpi_y, 200.0f);
  ASSERT_EQ(image.channel_count, 4);
  EXPECT_EQ(image.role_index(ChannelRole::alpha), 3);
  for (const std::size_t colour : {0u, 1u, 2u})
    EXPECT_EQ(every(image.pixels, colour, 4), every(file.pixels(), 0, 3));
  EXPECT_EQ(every(image.pixels, 3, 4), every(file.pixels(), 1, 3));
  EXPECT_EQ(image.white_coverage, every(file.pixels(), 1, 3));
}

TEST_F(ImageLoaderTest, NamesTheFileThatFails) {
  const std::string path = dir_.file("a.tif");
  write_all(path, "II*");
  EXPECT_THAT([&] { load_image(path); },
              ThrowsMessage<std::runtime_error>("ImageLoader: failed to load TIFF '" + path +
                                                "': TiffReader: cannot open '" + path + "'"));
}

TEST(WhiteCoverage, RefusesRecordsThatContradictThemselves) {
  const auto image = [](std::uint32_t width, std::uint32_t height, std::uint16_t channels,
                        std::size_t bytes) {
    LoadedImage record;
    record.width = width, record.height = height, record.channel_count = channels;
    record.pixels.resize(bytes);
    return record;
  };
  EXPECT_THAT(build_white_coverage(image(0, 0, 0, 0)), ElementsAre());

  LoadedImage bad_index = image(2, 2, 4, 16);
  bad_index.channels = {{ChannelRole::spot, "s", 9}, {ChannelRole::alpha, "a", 4}};
  const struct {
    LoadedImage record;
    const char* text;
  } cases[] = {
      {image(0, 1, 0, 0), "inconsistent LoadedImage geometry for white coverage"},
      {image(0, 0, 0, 1), "inconsistent LoadedImage geometry for white coverage"},
      {image(1, 0, 3, 0), "inconsistent LoadedImage geometry for white coverage"},
      {image(2, 2, 3, 11), "interleaved pixel buffer size mismatch for white coverage"},
      {image(0xFFFFFFFF, 0xFFFFFFFF, 2, 1), "white coverage pixel buffer size overflow"},
      {bad_index, "channel map index out of range for white coverage"},
  };
  for (const auto& c : cases)
    EXPECT_THAT([&] { build_white_coverage(c.record); },
                ThrowsMessage<std::runtime_error>(std::string("ImageLoader: ") + c.text));
}

}  // namespace
}  // namespace nvo::test
