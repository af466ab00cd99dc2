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
  static void expect_load_failure(const std::string& path, const std::string& text) {
    EXPECT_EQ(failure_of([&] { load_image(path); }),
              "ImageLoader: failed to load raster image '" + path + "': " + text);
  }
};

TEST_F(WicImageTest, ResolutionRules) {
  const std::string pixels(24, 'x');
  const struct {
    std::string bytes;
    float x, y;
  } cases[] = {
      {PngFile{.per_metre_x = 11811, .per_metre_y = 5906}.bytes(), 11811 * 0.0254f, 5906 * 0.0254f},
      {PngFile{.per_metre_x = 300, .per_metre_y = 200, .unit = PNG_RESOLUTION_UNKNOWN}.bytes(), 96, 96},
      {PngFile{.per_metre_x = 10000}.bytes(), 254, 254},
      {JpegFile{.density_unit = 1, .density_x = 300, .density_y = 150}.bytes(), 300, 150},
      {JpegFile{.density_unit = 2, .density_x = 100, .density_y = 50}.bytes(), 254, 127},
      {JpegFile{.density_unit = 0, .density_x = 3, .density_y = 2}.bytes(), 96, 96},
      {JpegFile{.density_unit = 3, .density_x = 300, .density_y = 300}.bytes(), 96, 96},
      {BmpFile{.data = pixels, .per_metre_y = 10000}.bytes(), 96, 254},
      {BmpFile{.data = pixels, .per_metre_x = -10000, .per_metre_y = -1}.bytes(), 96, 96},
      {webp_bytes(Bytes(4, 9), 1, 1, true), 96, 96},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string path = write(std::to_string(i) + ".jpg", cases[i].bytes);
    const ImageProbeInfo info = probe_image(path);
    EXPECT_FLOAT_EQ(info.dpi_x, cases[i].x) << i;
    EXPECT_FLOAT_EQ(info.dpi_y, cases[i].y) << i;
    EXPECT_EQ(make_raster_source(path)->metadata().dpi_y, info.dpi_y) << i;
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
  for (const auto& [name, text] : broken) expect_load_failure(suite_file(name), text);
}

TEST_F(WicImageTest, TrnsScanReadsChunkHeadersOnly) {
  const std::string signature = "\x89PNG\r\n\x1A\n";
  const std::string other = "\0\0\0\2abcd..crc-"s, trns = "\0\0\0\1tRNS"s, data = "\0\0\0\1IDAT.crc-"s;
  EXPECT_TRUE(png_has_trns(write("a", signature + other + trns)));
  for (const std::string& bytes : {signature + other + data + trns, signature + "\0\0\0\0IENDcrc-"s + trns,
                                   signature + "\xFF\xFF\xFF\xFF" + "abcd" + trns, "not PNG\n" + trns})
    EXPECT_FALSE(png_has_trns(write("a", bytes))) << bytes;
}

TEST_F(WicImageTest, FailuresNameTheirStage) {
  const std::string too_large = "WIC full decode: image exceeds pixel cap (268451840 > 268435456)";
  const struct {
    const char* name;
    std::string bytes, text;
  } cases[] = {
      {"c.png", png_header_only(9000, 9000), "WIC converter init failed"},
      {"empty.bmp", BmpFile{.width = 0}.bytes(), "Empty image: " + dir_.file("empty.bmp")},
      {"wide.png", png_header_only(1'073'741'824, 1), "WIC full decode: image row is too wide"},
      {"large.png", png_header_only(16385, 16384), too_large},
  };
  for (const auto& c : cases) expect_load_failure(write(c.name, c.bytes), c.text);
  expect_load_failure(dir_.file("none.png"), "WIC cannot open: " + dir_.file("none.png"));

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
  const struct {
    std::uint32_t side;
    const char* temporary_folder;
    bool decodes_whole_image;
  } cases[] = {
      {50, "none", false},  // stays in memory
      {2100, "", false},
      {2100, "none", true},
  };
  for (const auto& [side, folder, falls_back] : cases) {
    const ScopedVariable temporary("TMPDIR", dir_.file(folder).c_str());
    const Bytes pixels = rgba_image(side, side, busy_pixel);
    const std::string path = write("a.webp", PngFile{.width = side, .height = side}.bytes());
    const auto source = make_raster_source(path);
    for (std::uint32_t rows = side / 5, y = side - rows; y < side; y -= rows) {
      ASSERT_TRUE(source->read_rows(y, rows, out_, &error_)) << error_;
      ASSERT_TRUE(out_ == rows_of(pixels, side * 4, y, rows)) << y;
    }
    ASSERT_TRUE(source->read_region({side - 3, side - 1, 2, 1}, out_, &error_));
    EXPECT_EQ(out_, Bytes(pixels.end() - 12, pixels.end() - 4));
    const std::string reason = "WIC CopyPixels row read failed";
    const std::string warning = "; switching to full-load fallback for " + path;
    EXPECT_EQ(log_.count("[WARN ] RasterSource(WIC): " + reason + warning), falls_back);
    EXPECT_EQ(source->supports_row_reads(), !falls_back);
    EXPECT_EQ(source->read_strategy(),
              falls_back ? "fallback full-image decode (" + reason + ")" : "native WIC CopyPixels rows");
    const RasterReadStats stats = source->stats();
    EXPECT_THAT((std::vector{stats.row_reads, stats.region_reads, stats.full_decodes}),
                ElementsAre(falls_back ? 6 : 5, 1, falls_back));
  }
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
