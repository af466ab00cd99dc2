#include "image/raster_source.h"

#include "image/image_loader.h"
#include "image/image_test.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

class RasterSourceTest : public ImageTest {
 protected:
  std::shared_ptr<RasterSource> open(const TiffFile& file) {
    write_tiff(dir_.file("a.TIF"), file);
    return make_raster_source(dir_.file("a.TIF"));
  }
};

TEST_F(RasterSourceTest, DeliversRowsAndRegions) {
  TiffFile file{.samples = 5, .photometric = PHOTOMETRIC_SEPARATED, .width = 6, .height = 9};
  file.x_resolution = 100, file.y_resolution = 200, file.unit = RESUNIT_INCH;
  const auto source = open(file);
  EXPECT_TRUE(source->supports_row_reads());
  const ImageMeta& meta = source->metadata();
  EXPECT_EQ(meta.channel_count, 5);
  EXPECT_THAT((std::vector{meta.dpi_x, meta.dpi_y}), ElementsAre(100, 200));
  ASSERT_TRUE(source->read_rows(2, 7, out_, &error_));
  EXPECT_EQ(out_, file.band(2, 7));
  ASSERT_TRUE(source->read_region({4, 7, 2, 2}, out_, nullptr));
  ASSERT_EQ(out_.size(), 20u);
  EXPECT_EQ(rows_of(out_, 10, 0, 1), rows_of(file.pixels(), 10, 7 * 3 + 2, 1));
  EXPECT_EQ(rows_of(out_, 10, 1, 1), rows_of(file.pixels(), 10, 8 * 3 + 2, 1));
  EXPECT_EQ(source->stats().row_reads, 2u);
  EXPECT_EQ(source->stats().region_reads, 1u);
  EXPECT_EQ(source->read_strategy(), "native TIFF partial rows");
}

TEST_F(RasterSourceTest, ChecksWhatIsAskedFor) {
  const auto source = open({.width = 6, .height = 9});
  const std::string outside = "requested region is out of bounds";
  const std::pair<RasterRegion, std::string> cases[] = {
      {{6, 0, 1, 1}, outside},          {{0, 9, 1, 1}, outside}, {{5, 0, 2, 1}, outside},
      {{1, 1, 1, 0xFFFFFFFF}, outside}, {{77, 0, 0, 1}, ""},     {{0, 77, 1, 0}, ""},
  };
  for (const auto& [region, text] : cases) {
    out_ = {1}, error_ = "old";
    EXPECT_EQ(source->read_region(region, out_, &error_), text.empty());
    EXPECT_EQ(error_, text);
    EXPECT_EQ(out_.empty(), text.empty());
  }
  EXPECT_FALSE(source->read_rows(9, 1, out_, &error_));
  EXPECT_EQ(error_, "requested row range is out of bounds");
  EXPECT_TRUE(source->read_rows(9, 0, out_, &error_));
  EXPECT_EQ(error_, "");
}

TEST_F(RasterSourceTest, FallsBackToAFullDecodeOnce) {
  TiffFile file{.samples = 2, .photometric = {}, .height = 40, .rows_per_strip = 10};
  file.compression = COMPRESSION_ADOBE_DEFLATE;
  const std::string path = dir_.file("a.tif"), failure = "TiffReader: error reading strip 2";
  const std::string reason = "native row read failed: " + failure;
  const std::string warning = "; switching to full-load fallback for " + path;
  write_tiff(path, file);
  const LoadedImage image = load_image(path);
  damage_piece(path, 2);
  const auto failures = std::make_shared<DecodeFailures>();
  for (const std::size_t decodes : {2u, 1u}) {  // the second source knows what the first has learned
    const auto source = make_raster_source(path, failures);
    ASSERT_TRUE(source->read_rows(0, 20, out_, &error_));
    log_.take();
    for (int time : {1, 2}) {
      EXPECT_FALSE(source->read_rows(time, 20, out_, &error_));
      EXPECT_EQ(error_, failure);
    }
    EXPECT_EQ(log_.count("[WARN ] RasterSource(TIFF): " + reason + warning), 1u);
    EXPECT_EQ(log_.count("[ERROR] libtiff: "), decodes);
    EXPECT_EQ(source->read_strategy(), "fallback full-image decode (" + reason + ")");
    EXPECT_EQ(source->stats().full_decodes, 0u);
  }

  // A passing fault: at the warning the same bytes are back in place, and rows come from one full decode.
  const auto source = make_raster_source(path);
  const int repair = Logger::instance().add_sink([&](LogLevel, const std::string& line) {
    if (line.find(reason) != line.npos) write_tiff(path, file);
  });
  for (const auto& [y, rows] : {std::pair{0u, 20u}, {5u, 30u}, {0u, 30u}}) {
    EXPECT_TRUE(source->read_rows(y, rows, out_, &error_)) << error_;
    EXPECT_EQ(out_, rows_of(image.pixels, image.width * 4, y, rows));
  }
  Logger::instance().remove_sink(repair);
  EXPECT_EQ(source->stats().full_decodes, 1u);
}

}  // namespace
}  // namespace nvo::test
