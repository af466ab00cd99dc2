#include "image/wic_image.h"

#include "core/fnv1a.h"
#include "image/image_loader.h"
#include "image/image_meta_probe.h"
#include "image/image_test.h"
#include "image/raster_source.h"
#include "raster_files.h"
#include "support/scoped_variable.h"

namespace nvo::test {
namespace {

class WicImageTest : public ImageTest {
 protected:
  static std::string suite_file(const std::string& name) { return NVO_TEST_IMAGES "/" + name + ".png"; }
  std::string load_failure(const std::string& path) {
    const std::string text = failure_of([&] { load_image(path); });
    const std::string start = "ImageLoader: failed to load raster image '" + path + "': ";
    return text.starts_with(start) ? text.substr(start.size()) : "no start: " + text;
  }
  /// Some rows of an image.
  static Bytes band(const Bytes& pixels, std::uint32_t width, std::uint32_t y, std::uint32_t rows) {
    const auto* first = pixels.data() + std::size_t{y} * width * 4;
    return {first, first + std::size_t{rows} * width * 4};
  }
};

TEST_F(WicImageTest, ResolutionRules) {
  const auto png = [](std::uint32_t x, std::uint32_t y, int unit) {
    return PngFile{.per_metre_x = x, .per_metre_y = y, .unit = unit}.bytes();
  };
  const auto jpeg = [](UINT8 unit, UINT16 x, UINT16 y) {
    return JpegFile{.density_unit = unit, .density_x = x, .density_y = y}.bytes();
  };
  const auto bmp = [](std::int32_t x, std::int32_t y) {
    return BmpFile{.data = std::string(24, 'x'), .per_metre_x = x, .per_metre_y = y}.bytes();
  };
  const struct {
    std::string bytes;
    float x, y;
  } cases[] = {
      {png(11811, 5906, PNG_RESOLUTION_METER), 11811 * 0.0254f, 5906 * 0.0254f},
      {png(300, 200, PNG_RESOLUTION_UNKNOWN), 96, 96},
      {png(10000, 0, PNG_RESOLUTION_METER), 254, 254},
      {jpeg(1, 300, 150), 300, 150},
      {jpeg(2, 100, 50), 254, 127},
      {jpeg(0, 3, 2), 96, 96},
      {jpeg(3, 300, 300), 96, 96},
      {bmp(0, 10000), 96, 254},
      {bmp(-10000, -1), 96, 96},
      {webp_bytes(Bytes(4, 9), 1, 1, true), 96, 96},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string path = write(std::to_string(i) + ".jpg", cases[i].bytes);
    const WicImageInfo info = wic_read_info(path);
    EXPECT_FLOAT_EQ(info.dpi_x, cases[i].x) << i;
    EXPECT_FLOAT_EQ(info.dpi_y, cases[i].y) << i;
    EXPECT_EQ(make_raster_source(path)->metadata().dpi_y, info.dpi_y) << i;
    EXPECT_EQ(probe_image(path).dpi_y, info.dpi_y) << i;
    EXPECT_EQ(load_image(path).dpi_y, info.dpi_x) << i << ", a whole image has one resolution";
  }
}

TEST_F(WicImageTest, PngSuiteFiles) {
  // Sums of the pixels are those of an independent decoder. Alpha of 16 bits counts by tRNS alone.
  const struct {
    const char* name;
    std::uint64_t sum;
    bool has_alpha;
  } cases[] = {
      {"basn0g01", 0xF76AB9C2CC275B5D, false}, {"basi0g02", 0x100BBCF53D1FD325, false},
      {"basn0g04", 0xCA83A263DA76AB25, false}, {"basn0g08", 0x11ED8979CE4D7B4D, false},
      {"basi0g16", 0x785E25109704327C, false}, {"basn2c08", 0x6D0A594462868F25, false},
      {"basn2c16", 0x14FBA4B7A7C90773, false}, {"basn3p01", 0x83E9607069333725, false},
      {"basi3p04", 0x817FFF880B5D72C5, false}, {"basn3p08", 0x3733A8885D80DB25, false},
      {"basn4a08", 0x4B4E70FC7720494D, true},  {"basi4a16", 0x3FD7053B16AC1F45, false},
      {"basi6a08", 0xF9ED41B6375B125D, true},  {"basn6a16", 0x0FC79B1D0C1759F1, false},
      {"s05i3p02", 0x85FA2012B72FFAC6, false}, {"tbbn0g04", 0x39883B6D2D852264, true},
      {"tbbn2c16", 0x1E1F86E420F8AD04, true},  {"tbbn3p08", 0x6CDFF609C65AAC37, true},
      {"tbrn2c08", 0x1E1F86E420F8AD04, true},  {"oi4n0g16", 0x785E25109704327C, false},
      {"f99n0g04", 0x912A1204BB211775, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const LoadedImage image = load_image(suite_file(c.name));
    EXPECT_TRUE(image.is_rgb && !image.is_cmyk && !image.is_gray);
    EXPECT_EQ(image.kind, ImageSourceKind::wic);
    EXPECT_EQ(image.has_alpha, c.has_alpha);
    EXPECT_EQ(image.channel_count, 4) << "alpha is delivered in any case";
    EXPECT_EQ(image.role_index(ChannelRole::alpha), c.has_alpha ? 3 : -1);
    EXPECT_EQ(fnv1a(image.pixels.data(), image.pixels.size()), c.sum);
    for (std::size_t i = 0; i < image.white_coverage.size(); ++i)
      ASSERT_EQ(image.white_coverage[i], c.has_alpha ? image.pixels[i * 4 + 3] : 255);
  }
  const std::pair<const char*, std::string> broken[] = {
      {"xcsn0g01", "WIC CopyPixels failed"},
      {"xdtn0g01", "WIC GetFrame failed"},
      {"xhdn0g08", "WIC GetFrame failed"},
      {"xs4n0g01", "WIC cannot open: " + suite_file("xs4n0g01")},
  };
  for (const auto& [name, text] : broken) EXPECT_EQ(load_failure(suite_file(name)), text);
}

TEST_F(WicImageTest, TrnsScanReadsChunkHeadersOnly) {
  const std::string signature = "\x89PNG\r\n\x1A\n";
  const std::string other = "\0\0\0\2abcd..crc-"s, trns = "\0\0\0\1tRNS"s, data = "\0\0\0\1IDAT.crc-"s;
  const std::pair<std::string, bool> cases[] = {
      {signature + other + trns, true},
      {signature + other + data + trns, false},
      {signature + "\0\0\0\0IENDcrc-"s + trns, false},
      {signature + "\xFF\xFF\xFF\xFF" + "abcd" + trns, false},
      {signature + "\0\0\0\1tRN"s, false},
      {"x" + trns, false},
      {"", false},
  };
  for (const auto& [bytes, found] : cases) EXPECT_EQ(png_has_trns(write("a", bytes)), found) << bytes;
  EXPECT_FALSE(png_has_trns(dir_.file("none")));
  EXPECT_FALSE(png_has_trns(dir_.path()));
}

TEST_F(WicImageTest, FailuresNameTheirStage) {
  const std::string png = PngFile{}.bytes(), cannot_open = "WIC cannot open: ";
  const std::string too_large = "WIC full decode: image exceeds pixel cap (268451840 > 268435456)";
  const struct {
    const char* name;
    std::string bytes, text;
  } cases[] = {
      {"tiff.png", "II*\0 and more", cannot_open + dir_.file("tiff.png")},
      {"a.png", png.substr(0, 20), "WIC GetFrame failed"},
      {"b.png", png.substr(0, png.size() / 2), "WIC CopyPixels failed"},
      {"c.png", png_header_only(9000, 9000), "WIC converter init failed"},
      {"empty.bmp", BmpFile{.width = 0}.bytes(), "Empty image: " + dir_.file("empty.bmp")},
      {"wide.png", png_header_only(1'073'741'824, 1), "WIC full decode: image row is too wide"},
      {"large.png", png_header_only(16385, 16384), too_large},
  };
  for (const auto& c : cases) EXPECT_EQ(load_failure(write(c.name, c.bytes)), c.text);
  EXPECT_EQ(load_failure(dir_.file("none.png")), cannot_open + dir_.file("none.png"));

  // The probe believes a header whose pixels nobody could hold; reading rows does not.
  EXPECT_EQ(probe_image(dir_.file("wide.png")).width, 1'073'741'824u);
  const auto source = make_raster_source(dir_.file("large.png"));
  EXPECT_FALSE(source->supports_row_reads());
  EXPECT_EQ(source->read_strategy(), "fallback full-image decode (WIC format converter init failed)");
  EXPECT_FALSE(source->read_rows(0, 1, out_, &error_));
  EXPECT_EQ(error_, too_large);

  EXPECT_EQ(wic_rgba_layout(16384, 16384, "x").byte_count, 1u << 30);
  EXPECT_EQ(failure_of([] { wic_rgba_layout(1'073'741'823, 1, "x"); }),
            "x: image exceeds pixel cap (1073741823 > 268435456)");
}

TEST_F(WicImageTest, ExtensionsAndBareNames) {
  const std::string png = PngFile{}.bytes();
  for (const char* name : {"a.png", "a.JPG", "a.jpeg", "a.b.bmp", "a.WebP", ".png"})
    EXPECT_EQ(make_raster_source(write(name, png))->metadata().width, 13u) << name;

  const auto old_folder = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  for (const std::string name : {"jpeg", "WEBP", "png", "bmp", "tiff", "a.jpe", "a.tif.bak", "a."}) {
    write(name, png);
    const bool loads = name == "jpeg" || name == "WEBP";
    const std::string text = "unsupported image extension: " + name;
    EXPECT_EQ(failure_of([&] { load_image(name); }), loads ? "" : "ImageLoader: " + text);
    EXPECT_EQ(failure_of([&] { probe_image(name); }), loads ? "" : "ImageMetaProbe: " + text);
    EXPECT_EQ(failure_of([&] { make_raster_source(name); }), "RasterSource: " + text);
  }
  std::filesystem::current_path(old_folder);
}

TEST_F(WicImageTest, BandsFromTheBottomEqualTheWholeImage) {
  // One image that stays in memory, one that goes through a temporary file.
  for (const std::uint32_t side : {50u, 2100u}) {
    const Bytes pixels = rgba_image(side, side, busy_pixel);
    const std::string path = write("a.webp", PngFile{.width = side, .height = side}.bytes());
    const auto source = make_raster_source(path);
    for (int fifth = 4; fifth >= 0; --fifth) {
      const std::uint32_t rows = side / 5, y = static_cast<std::uint32_t>(fifth) * rows;
      ASSERT_TRUE(source->read_rows(y, rows, out_, &error_)) << error_;
      ASSERT_TRUE(out_ == band(pixels, side, y, rows)) << y;
    }
    ASSERT_TRUE(source->read_region({side - 3, side - 1, 2, 1}, out_, &error_));
    EXPECT_EQ(out_, Bytes(pixels.end() - 12, pixels.end() - 4));
    EXPECT_EQ(source->read_strategy(), "native WIC CopyPixels rows");
    const RasterReadStats stats = source->stats();
    EXPECT_THAT((std::vector{stats.row_reads, stats.region_reads, stats.full_decodes}), ElementsAre(5, 1, 0));
  }
}

TEST_F(WicImageTest, DecodesTheWholeImageWhenTheTemporaryFileFails) {
  const PngFile file{.width = 2100, .height = 2100};
  const std::string path = write("a.png", file.bytes());
  const auto source = make_raster_source(path);
  const ScopedVariable folder("TMPDIR", dir_.file("none").c_str());
  EXPECT_TRUE(source->read_rows(2000, 100, out_, &error_));
  EXPECT_TRUE(out_ == band(file.pixels(), 2100, 2000, 100));
  EXPECT_TRUE(source->read_region({1, 1, 2, 2}, out_, &error_));
  const std::string reason = "WIC CopyPixels row read failed";
  const std::string warning = "; switching to full-load fallback for " + path;
  EXPECT_EQ(log_.count("[WARN ] RasterSource(WIC): " + reason + warning), 1u);
  EXPECT_FALSE(source->supports_row_reads());
  EXPECT_EQ(source->read_strategy(), "fallback full-image decode (" + reason + ")");
  EXPECT_EQ(source->stats().full_decodes, 1u);
  EXPECT_EQ(source->stats().row_reads, 2u);
}

TEST_F(WicImageTest, ADamagedFileFailsOnceAndForAll) {
  const std::string png = PngFile{.width = 200, .height = 200}.bytes();
  const std::string path = write("a.png", png.substr(0, png.size() / 2));
  const auto failures = std::make_shared<DecodeFailures>();
  for (const std::size_t decodes : {2u, 0u}) {  // the second source knows where the damage is
    const auto source = make_raster_source(path, failures);
    const std::uint32_t sound = std::min(failures->sound_rows(), 2u);
    EXPECT_TRUE(source->read_rows(0, sound, out_, &error_)) << "rows above the damage are there";
    log_.take();
    EXPECT_FALSE(source->read_region({0, 198, 2, 2}, out_, nullptr));
    EXPECT_FALSE(source->read_rows(0, 2, out_, &error_));
    EXPECT_EQ(error_, "WIC CopyPixels failed");
    EXPECT_EQ(log_.count("switching to full-load"), 1u);
    EXPECT_EQ(log_.count("PNG: "), decodes);
    EXPECT_EQ(source->read_strategy(), "fallback full-image decode (WIC CopyPixels region read failed)");
    EXPECT_EQ(source->stats().full_decodes, 0u);
  }
  const std::uint32_t sound = failures->sound_rows();
  EXPECT_TRUE(make_raster_source(path, failures)->read_rows(0, sound, out_, nullptr)) << sound;
  EXPECT_FALSE(make_raster_source(path)->read_rows(sound, 1, out_, nullptr)) << sound;
}

}  // namespace
}  // namespace nvo::test
