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
    int largest = expected.size() == image.pixels.size() ? 0 : 256;
    for (std::size_t i = 0; largest < 256 && i < expected.size(); ++i) {
      const std::size_t alpha = image.channel_count == 4 && image.has_alpha ? i | 3 : i;
      const bool visible = i == alpha || image.pixels[alpha] != 0 || expected[alpha] != 0;
      if (visible)
        largest = std::max(largest, std::abs(static_cast<std::uint8_t>(expected[i]) - image.pixels[i]));
    }
    return largest;
  }
};

/// In bands from the bottom up, as a sheet is walked.
Bytes read_upwards(RasterSource& source) {
  Bytes pixels, band;
  for (std::uint32_t end = source.metadata().height, rows = 0; end > 0; end -= rows) {
    rows = std::min(end, 23u);
    if (!source.read_rows(end - rows, rows, band, nullptr)) return {};
    pixels.insert(pixels.begin(), band.begin(), band.end());
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
