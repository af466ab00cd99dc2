// Real files of other projects against the pixels that other people's decoders make of them.
// scripts/fetch-image-suites brings the files; without them this test is skipped.

#include <algorithm>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "image/image_loader.h"
#include "image/image_test.h"
#include "image/raster_source.h"

namespace nvo::test {
namespace {

/// A line of references.tsv.
struct Reference {
  std::string path;
  std::uint32_t width = 0, height = 0, channels = 0;
  std::string pixels;  ///< a file; "-" where the reference refuses the image, "?" where there is no reference

  bool has_pixels() const { return channels != 0; }
  bool ends_with(const char* end) const { return path.ends_with(end); }
};

/// Files that the references decode and this program refuses, and why it is right to.
constexpr struct {
  const char *path, *failure;
} kRefused[] = {
    {"", "TiffReader: unsupported TIFF "},
    {"testimgari.jpg", "WIC converter init failed"},   // arithmetic coding
    {"hopper_bad_exif.jpg", "WIC CopyPixels failed"},  // a code that isn't in its tables
    {"b/rletopdown.bmp", "WIC GetFrame failed"},       // run lengths go upwards only
    {"pal8_offset.bmp", "WIC GetFrame failed"},        // the palette would be printed as pixels
    {"mmap_error.bmp", "WIC GetFrame failed"},         // the same
};

/// Files with errors that every decoder makes something else of.
constexpr const char* kAnybodysGuess[] = {"b/badrle.bmp", "b/pal8badindex.bmp"};

class ImageSuites : public ::testing::Test {
 protected:
  const std::string folder_ = NVO_IMAGE_SUITES "/";
  std::vector<Reference> references_;

  void SetUp() override {
    std::ifstream table(folder_ + "references.tsv");
    for (Reference r; table >> std::ws && std::getline(table, r.path, '\t');)
      if (table >> r.width >> r.height >> r.channels >> r.pixels) references_.push_back(r);
    if (references_.empty())
      GTEST_SKIP() << "no images; scripts/fetch-image-suites brings them to " << folder_;
  }

  /// The largest difference of a sample; that of a colour under zero alpha doesn't count.
  int difference(const Reference& reference, const LoadedImage& image) const {
    const std::string expected = read_all(folder_ + reference.pixels);
    if (expected.size() != image.pixels.size()) return 256;
    const std::size_t step = image.channel_count;
    int largest = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const std::size_t alpha = i - i % step + 3;
      if (image.has_alpha && step == 4 && i != alpha && image.pixels[alpha] == 0 && expected[alpha] == 0)
        continue;
      largest = std::max(largest, std::abs(static_cast<std::uint8_t>(expected[i]) - image.pixels[i]));
    }
    return largest;
  }
};

/// Bands from the bottom up, as a sheet is walked.
Bytes read_upwards(RasterSource& source) {
  constexpr std::uint32_t kBandRows = 23;
  const ImageMeta& meta = source.metadata();
  const std::size_t row_bytes = std::size_t{meta.width} * meta.channel_count;
  Bytes pixels(row_bytes * meta.height), band;
  std::string error;
  for (std::uint32_t end = meta.height; end > 0;) {
    const std::uint32_t y = end - std::min(end, kBandRows);
    if (!source.read_rows(y, end - y, band, &error)) throw std::runtime_error(error);
    std::copy(band.begin(), band.end(), pixels.data() + y * row_bytes);
    end = y;
  }
  return pixels;
}

TEST_F(ImageSuites, PixelsEqualThoseOfOtherDecoders) {
  const LogCapture log(LogLevel::warn);
  int equal = 0, refused = 0;
  for (const Reference& reference : references_) {
    SCOPED_TRACE(reference.path);
    LoadedImage image;
    try {
      image = load_image(folder_ + reference.path);
    } catch (const std::exception& failure) {
      ++refused;
      const std::string text = failure.what();
      EXPECT_TRUE(!reference.has_pixels() || std::ranges::any_of(kRefused, [&](const auto& known) {
        return reference.ends_with(known.path) && text.find(known.failure) != text.npos;
      })) << text;
      continue;
    }
    EXPECT_TRUE(read_upwards(*make_raster_source(folder_ + reference.path)) == image.pixels);
    EXPECT_FALSE(reference.pixels == "-" && reference.ends_with(".png")) << "a broken PNG loads";
    const bool is_guess =
        std::ranges::any_of(kAnybodysGuess, [&](auto end) { return reference.ends_with(end); });
    if (!reference.has_pixels() || is_guess) continue;
    EXPECT_EQ(image.width, reference.width);
    EXPECT_EQ(image.channel_count, reference.channels);
    // Others round a BMP's five bits down.
    EXPECT_LE(difference(reference, image), reference.ends_with(".bmp") ? 1 : 0);
    ++equal;
  }
  std::cout << equal << " images equal their references, " << refused << " are refused\n";
  EXPECT_GT(equal, 1000);
}

}  // namespace
}  // namespace nvo::test
