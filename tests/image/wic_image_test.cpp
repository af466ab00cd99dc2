#include "image/wic_image.h"

#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>

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
  const std::string pixels(24, 'x'), jpeg = JpegFile{}.bytes();
  std::string damaged = PngFile{.per_metre_x = 11811, .per_metre_y = 11811}.bytes();
  damaged[damaged.find("pHYs") + 4] ^= 1;
  const auto assumed = ResolutionSource::assumed;
  const struct {
    std::string bytes;
    float x, y;
    ResolutionSource source = ResolutionSource::file;
  } cases[] = {
      {PngFile{.per_metre_x = 11811, .per_metre_y = 5906}.bytes(), 11811 * 0.0254f, 5906 * 0.0254f},
      {PngFile{.per_metre_x = 300, .per_metre_y = 200, .unit = PNG_RESOLUTION_UNKNOWN}.bytes(), 96, 96,
       assumed},
      {damaged, 96, 96, ResolutionSource::damaged},
      {PngFile{.per_metre_x = 10000}.bytes(), 254, 254},
      {JpegFile{.density_unit = 1, .density_x = 300, .density_y = 150}.bytes(), 300, 150},
      {JpegFile{.density_unit = 2, .density_x = 100, .density_y = 50}.bytes(), 254, 127},
      {JpegFile{.density_unit = 0, .density_x = 3, .density_y = 2}.bytes(), 96, 96, assumed},
      {JpegFile{.density_unit = 3, .density_x = 300, .density_y = 300}.bytes(), 96, 96, assumed},
      {with_exif(JpegFile{.density_unit = 1, .density_x = 72}.bytes(), {.x = 300, .y = 300}), 72, 1},
      {with_exif(jpeg, {.unit = 2, .x = 3001, .x_below = 10, .y = 150}), 300.1f, 150},
      {with_exif(jpeg, {.big_endian = true, .orientation = 6, .unit = 3, .x = 100, .y = 50}), 254, 127},
      {with_exif(jpeg, {.x = 300}), 300, 300},
      {with_exif(jpeg, {.unit = 1, .x = 300, .y = 300}), 96, 96, assumed},
      {with_exif(jpeg, {.unit = 2, .x = 300, .x_below = 0}), 96, 96, assumed},
      {BmpFile{.data = pixels, .per_metre_y = 10000}.bytes(), 96, 254, assumed},
      {BmpFile{.data = pixels, .per_metre_x = -10000, .per_metre_y = -1}.bytes(), 96, 96, assumed},
      {webp_bytes(Bytes(4, 9), 1, 1, true), 96, 96, assumed},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string path = write(std::to_string(i) + ".jpg", cases[i].bytes);
    const ImageProbeInfo info = probe_image(path);
    EXPECT_FLOAT_EQ(info.dpi_x, cases[i].x) << i;
    EXPECT_FLOAT_EQ(info.dpi_y, cases[i].y) << i;
    EXPECT_EQ(info.resolution_source, cases[i].source) << i;
    EXPECT_EQ(make_raster_source(path)->metadata().dpi_y, info.dpi_y) << i;
    EXPECT_EQ(load_image(path).dpi_y, info.dpi_x) << i << ", a whole image has one resolution";
  }
}

TEST_F(WicImageTest, TheProbeSaysWhatTheFilmWillNotHave) {
  const auto png = PngFile{.per_metre_x = 10000, .per_metre_y = 10000}.bytes();
  const auto jpeg = JpegFile{.density_unit = 1, .density_x = 300, .density_y = 300}.bytes();
  const std::string still = webp_bytes(Bytes(4, 9), 1, 1, true), frame = still.substr(12);
  const std::string sized = "; 96 dots per inch are assumed, which makes it ";
  std::string damaged = PngFile{.width = 96, .height = 48, .per_metre_x = 9, .per_metre_y = 9}.bytes();
  damaged[damaged.find("pHYs") + 4] ^= 1;
  BmpFile bmp{.header = 124, .data = std::string(24, 'x'), .per_metre_x = 9, .per_metre_y = 9};
  std::string profiled = bmp.bytes();
  profiled.replace(14 + 56, 4, "DEBM");
  const std::string turned =
      "a viewer shows it turned by 90 degrees clockwise (Exif orientation 6); the film has it "
      "as it is stored";
  const ExifFile six{.orientation = 6}, upright{.orientation = 1};
  const struct {
    const char* name;
    std::string bytes;
    bool has_profile;
    std::vector<std::string> notes;
  } cases[] = {
      {"png", png, false, {}},
      {"damaged pHYs",
       damaged,
       false,
       {"its resolution stands in a damaged part of the file" + sized + "1.00 x 0.50 inches"}},
      {"png profile", with_chunk(png, "iCCP", "x"), true, {}},
      {"sRGB is no profile", with_chunk(png, "sRGB", "x"), false, {}},
      {"usual gamma", with_chunk(png, "gAMA", "\0\0\xB1\x8F"s), false, {}},
      {"sRGB above gamma", with_chunk(with_chunk(png, "gAMA", "\0\1\x86\xA0"s), "sRGB", "x"), false, {}},
      {"linear gamma",
       with_chunk(png, "gAMA", "\0\1\x86\xA0"s),
       false,
       {"its gamma (gAMA 1) is not used; a viewer may show it lighter than it prints"}},
      {"png animation",
       with_chunk(png, "acTL", "\0\0\0\3\0\0\0\0"s),
       false,
       {"it is an animation of 3 frames; the film has the first one"}},
      {"png exif", with_chunk(png, "eXIf", six.bytes()), false, {turned}},
      {"jpeg exif", with_exif(jpeg, six), false, {turned}},
      {"upright", with_exif(jpeg, upright), false, {}},
      {"exif cut off", with_segment(jpeg, '\xE1', "Exif\0\0II*\0\xFF\xFF\xFF\xFF"s), false, {}},
      {"jpeg profile", with_segment(jpeg, '\xE2', "ICC_PROFILE\0\1\1x"s), true, {}},
      {"webp",
       extended_webp(8 | 32, 1, 1, riff_chunk("ICCP", "x") + frame + riff_chunk("EXIF", six.bytes())),
       true,
       {"it states no resolution" + sized + "0.01 x 0.01 inches", turned}},
      {"animation",
       animated_webp(96, 96, {{0, 0, 1, 1, still}, {2, 2, 1, 1, still}}),
       false,
       {"it states no resolution" + sized + "1.00 x 1.00 inches",
        "it is an animation of 2 frames; the film has the first one"}},
      {"bmp", bmp.bytes(), false, {}},
      {"bmp profile", profiled, true, {}},
  };
  for (const auto& c : cases) {
    const ImageProbeInfo info = probe_image(write(c.name + ".png"s, c.bytes));
    EXPECT_EQ(info.has_profile, c.has_profile) << c.name;
    EXPECT_EQ(info.notes, c.notes) << c.name;
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
    log_.take();
    const LoadedImage image = load_image(suite_file(c.name));
    const bool drops_alpha = c.name == "basi4a16"s || c.name == "basn6a16"s;
    EXPECT_EQ(log_.count("alpha of 16 bits is not used"), drops_alpha);
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
  EXPECT_TRUE(
      log_.contains("[WARN ] Art '" + dir_.file("c.png") + "' can't be read: PNG: the file is too short"));
  expect_load_failure(dir_.file("none.png"), "WIC cannot open: " + dir_.file("none.png"));
  const std::string pipe = dir_.file("pipe.png");  // nobody writes into it
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  expect_load_failure(pipe, "WIC cannot open: " + pipe);
  EXPECT_EQ(failure_of([&] { probe_image(pipe); }), "WIC cannot open: " + pipe);
  EXPECT_TRUE(log_.contains("[WARN ] Art '" + pipe + "' can't be read: it is no file but a pipe"));

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
  for (const std::uint32_t side : {50u, 2100u}) {  // in memory, in a temporary file
    const Bytes pixels = rgba_image(side, side, busy_pixel);
    const auto source = make_raster_source(write("a.webp", PngFile{.width = side, .height = side}.bytes()));
    for (std::uint32_t rows = side / 5, y = side - rows; y < side; y -= rows) {
      ASSERT_TRUE(source->read_rows(y, rows, out_, &error_)) << error_;
      ASSERT_TRUE(out_ == rows_of(pixels, side * 4, y, rows)) << y;
    }
    ASSERT_TRUE(source->read_region({side - 3, side - 1, 2, 1}, out_, &error_));
    EXPECT_EQ(out_, Bytes(pixels.end() - 12, pixels.end() - 4));
    EXPECT_EQ(source->read_strategy(), "native WIC CopyPixels rows");
    const RasterReadStats stats = source->stats();
    EXPECT_THAT((std::vector{stats.row_reads, stats.region_reads, stats.full_decodes}), ElementsAre(5, 1, 0));
  }
}

/// No file of the process may grow above `bytes`.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : old_action_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit limit{bytes, old_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, old_action_);
  }

 private:
  rlimit old_{};
  void (*old_action_)(int);
};

TEST_F(WicImageTest, NoRoomForTheTemporaryFileIsNoDamage) {
  const std::string plain = write("a.png", PngFile{.width = 2100, .height = 2100}.bytes());
  const std::string vast = write("vast.png", png_header_only(16'000'000, 1'000'000));
  std::filesystem::resize_file(vast, std::uint64_t{64} << 30);  // without a block on the disk
  const std::string here = dir_.path().string(), none = dir_.file("none");
  const struct {
    std::string path, folder;
    rlim_t limit;
    std::string text;
  } cases[] = {
      {plain, none, RLIM_INFINITY,
       "cannot make the temporary file in '" + none + "' (TMPDIR), 17640000 bytes for the pixels of '" +
           plain + "': No such file or directory"},
      {plain, here, 3 << 20,
       "cannot write the temporary file in '" + here + "' (TMPDIR), 17640000 bytes for the pixels of '" +
           plain + "': File too large"},
      {vast, here, RLIM_INFINITY,
       "the pixels of '" + vast + "' need a temporary file of 64000000000000 bytes in '" + here +
           "' (TMPDIR), which has room for "},
  };
  for (const auto& c : cases) {
    const ScopedVariable temporary("TMPDIR", c.folder.c_str());
    const FileSizeLimit limit(c.limit);
    const auto failures = std::make_shared<DecodeFailures>();
    const auto source = make_raster_source(c.path, failures);
    EXPECT_THAT(failure_of([&] {
                  source->read_rows(0, 1, out_, &error_);
                  source->read_rows(2000, 1, out_, &error_);
                }),
                StartsWith(c.text));
    EXPECT_FALSE(failures->failure(DecodeStage::whole_image));
    EXPECT_FALSE(log_.contains("switching to full-load fallback"));
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
