#include "image/decode/raster_decoder.h"

#include <cmath>
#include <ctime>

#include <sys/resource.h>

#include "image/decode/png_rows.h"
#include "image/image_test.h"
#include "image/raster_fuzzing.h"
#include "raster_files.h"
#include "support/seed_replay.h"

namespace nvo::test {
namespace {

using ::testing::DoubleNear;
using ::testing::Pointwise;

class RasterDecoderTest : public ImageTest {
 protected:
  RasterInfo info_;

  /// By rows; expects the same of decoding at once.
  Bytes decode(const std::string& file) {
    const auto decoder = open_raster_decoder(ByteReader(write("image", file)));
    if (!decoder) throw DecodeError("not an image");
    info_ = decoder->info();
    decoder->start();
    Bytes pixels(decoder->row_bytes() * info_.height), at_once;
    for (std::size_t at = 0; at < pixels.size(); at += decoder->row_bytes()) decoder->read_row(&pixels[at]);
    const auto again = open_raster_decoder(ByteReader(dir_.file("image")));
    again->start();
    again->read_image(at_once);
    EXPECT_TRUE(pixels == at_once);
    return pixels;
  }
  std::string failure(const std::string& file) {
    return failure_of([&] { decode(file); });
  }
};

/// The colours that a JPEG is made of. Adobe's marker says that ink amounts are inverted.
Bytes jpeg_pixels(const JpegFile& file) {
  return rgba_image(file.width, file.height, [&](std::uint32_t x, std::uint32_t y) {
    const auto light = [&](int component) {
      const int sample = file.sample(x, y, file.components == 1 ? 0 : component);
      return file.components < 4 || file.adobe ? sample : 255 - sample;
    };
    const double black = file.components < 4 ? 1.0 : light(3) / 255.0;
    const auto byte = [&](int c) { return static_cast<std::uint8_t>(std::lround(light(c) * black)); };
    return Rgba{byte(0), byte(1), byte(2), 255};
  });
}

TEST_F(RasterDecoderTest, JpegColours) {
  const std::pair<JpegFile, int> cases[] = {
      {{.components = 1, .stored = JCS_GRAYSCALE}, 2},
      {{.stored = JCS_YCbCr}, 4},
      {{.stored = JCS_RGB, .adobe = true}, 4},
      {{.components = 4, .stored = JCS_CMYK}, 5},
      {{.components = 4, .stored = JCS_CMYK, .adobe = true}, 5},
      {{.components = 4, .stored = JCS_YCCK, .adobe = true}, 5},
  };
  for (auto [file, tolerance] : cases)
    for (const bool progressive : {false, true}) {
      file.progressive = progressive;
      EXPECT_THAT(decode(file.bytes()), Pointwise(DoubleNear(tolerance), jpeg_pixels(file))) << file.stored;
      EXPECT_EQ(info_.needs_whole_frame, progressive);
      EXPECT_FALSE(info_.has_alpha);
    }

  // Of a single colour nothing is lost, so that the rounding shows: 100 * 130 / 255 is 50.98.
  JpegFile flat{.components = 4, .stored = JCS_CMYK, .adobe = true};
  flat.sample = [](auto, auto, int component) {
    return component == 3 ? std::uint8_t{130} : std::uint8_t{100};
  };
  EXPECT_EQ(decode(flat.bytes()), jpeg_pixels(flat));
}

TEST_F(RasterDecoderTest, PngAndWebp) {
  const PngFile plain, interlaced{.interlaced = true};
  const Bytes opaque = rgba_image(9, 5, [](auto, auto) { return Rgba{9, 99, 199, 255}; });
  // Larger than one piece of the incremental decoder.
  const Bytes busy = rgba_image(401, 399, busy_pixel);
  // The first frame of an animation lies on a transparent canvas.
  const Bytes part = rgba_image(6, 5, busy_pixel);
  const std::string frame = webp_bytes(part, 6, 5, true), other = webp_bytes(opaque, 9, 5, true);
  const std::string animation = animated_webp(12, 11, {{4, 2, 6, 5, frame}, {0, 0, 9, 5, other}});
  const Bytes canvas = rgba_image(12, 11, [](std::uint32_t x, std::uint32_t y) {
    return x >= 4 && x < 10 && y >= 2 && y < 7 ? busy_pixel(x - 4, y - 2) : Rgba{};
  });
  const struct {
    std::string file;
    Bytes pixels;
    bool has_alpha, needs_whole_frame;
  } cases[] = {
      {with_chunk(plain.bytes(), "zTXt", std::string(9 << 20, 'x')), plain.pixels(), true, false},
      {interlaced.bytes(), interlaced.pixels(), true, true},
      {webp_bytes(busy, 401, 399, true), busy, true, true},
      {webp_bytes(opaque, 9, 5, true), opaque, false, true},
      {animation, canvas, true, true},
      {animated_webp(9, 5, {{0, 0, 9, 5, other}}), opaque, true, true},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(decode(c.file) == c.pixels);
    EXPECT_EQ(info_.has_alpha, c.has_alpha);
    EXPECT_EQ(info_.needs_whole_frame, c.needs_whole_frame);
  }
}

/// A PNG of noise with every filter, in which runs of Paeth's are long enough for all that is done at once.
struct NoisyPng {
  std::uint32_t width = 300, height = 700;
  std::size_t samples = 4, chunk_bytes = 1 << 30;
  int extra_bytes = 0;                ///< unpacked, behind the last row
  std::size_t bad_row = 0xFFFF'FFFF;  ///< has a filter that there isn't
  std::string behind = {};            ///< the packed pixels, in the last chunk

  std::string bytes() const {
    constexpr char kColorTypes[] = {0, 4, 2, 6};
    std::string rows, packed;
    std::uint32_t noise = 1;
    for (std::size_t y = 0; y < height; ++y) {
      rows += static_cast<char>(
          y == bad_row ? 5 : std::array{0, 4, 1, 4, 4, 4, 4, 4, 2, 4, 4, 3, 4, 4, 4}[y % 15]);
      for (std::size_t i = 0; i < width * samples; ++i)
        rows += static_cast<char>((noise = noise * 1664525 + 1013904223) >> 24);
    }
    rows.resize(rows.size() + static_cast<std::size_t>(extra_bytes));
    packed.resize(compressBound(rows.size()));
    uLongf size = packed.size();
    compress2(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(rows.data()),
              rows.size(), 1);
    packed.resize(size);
    packed += behind;
    std::string header = big(width) + big(height) + '\x08' + kColorTypes[samples - 1] + std::string(3, '\0');
    std::string png = "\x89PNG\r\n\x1A\n" + chunk("IHDR", header);
    for (std::size_t at = 0; at < size; at += chunk_bytes)
      png += chunk("IDAT", packed.substr(at, chunk_bytes)) + (chunk_bytes < 9 ? chunk("IDAT", "") : "");
    return png + chunk("IEND", "");
  }
  PlainPng plain() const { return {33, width, height, samples}; }

 private:
  static std::string big(std::uint64_t value) {
    std::string bytes;
    put_little(bytes, value, 4);
    return {bytes.rbegin(), bytes.rend()};
  }
  static std::string chunk(const std::string& type, const std::string& data) {
    const std::string body = type + data;
    return big(data.size()) + body +
           big(crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size())));
  }
};

TEST_F(RasterDecoderTest, PlainPngsAreReadFastAndAsByLibpng) {
  std::vector<NoisyPng> files = {{}, {.chunk_bytes = 8192}, {.chunk_bytes = 100'000}};
  for (std::uint32_t width = 1; width <= 131; ++width)
    for (const std::size_t samples : {1, 2, 3, 4})
      files.push_back({width, 1 + width % 31, samples, std::array<std::size_t, 3>{1, 7, 8192}[width % 3]});
  for (const NoisyPng& png : files) {
    SCOPED_TRACE(testing::Message() << png.width << " x " << png.samples << " by " << png.chunk_bytes);
    const auto expected = fuzz::decode_rows(open_libpng_decoder, write("image", png.bytes()));
    ByteReader reader(dir_.file("image"));
    PngRows rows(reader, png.plain());
    Bytes pixels(expected.pixels.size());
    for (std::size_t y = 0; y < png.height; ++y) ASSERT_TRUE(rows.read_row(&pixels[y * png.width * 4]));
    ASSERT_TRUE(pixels == expected.pixels);
  }
}

TEST_F(RasterDecoderTest, DamagedPngsEndAsByLibpng) {
  std::vector<std::string> files;
  for (const std::size_t samples : {2, 3, 4})
    for (const NoisyPng& png : {NoisyPng{.samples = samples, .extra_bytes = 1},
                                {.samples = samples, .extra_bytes = 99'999},
                                {.samples = samples, .bad_row = 0},
                                {.samples = samples, .bad_row = 433},
                                {.samples = samples, .bad_row = 699},
                                {.samples = samples, .chunk_bytes = 8192, .behind = "behind the end"}})
      files.push_back(png.bytes());
  const std::string sounds[] = {NoisyPng{}.bytes(), NoisyPng{.chunk_bytes = 8192}.bytes()};
  for (const std::string& sound : sounds)
    for (std::size_t at = 41; at < sound.size(); at += sound.size() / 17) {
      files.push_back(sound.substr(0, at));
      files.push_back(sound);
      files.back()[at] ^= '\x10';
    }
  // Only the last checksum is wrong.
  for (const std::string& sound : sounds) {
    files.push_back(sound);
    files.back()[sound.size() - 14] ^= '\x01';
  }
  // More rows than the header says, and fewer.
  for (const char height : {'\x02', '\xFF'})
    for (const std::string& sound : sounds) {
      std::string file = sound;
      file[22] = height;
      const auto repaired =
          fuzz::with_right_checksums(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
      files.emplace_back(repaired.begin(), repaired.end());
    }
  std::size_t failures = 0;
  for (const std::string& file : files) {
    const auto expected = fuzz::decode_rows(open_libpng_decoder, write("image", file));
    const auto found = fuzz::decode_rows(open_png_decoder, dir_.file("image"));
    EXPECT_EQ(found.failure, expected.failure);
    EXPECT_TRUE(found.pixels == expected.pixels) << found.pixels.size() << " for " << expected.pixels.size();
    failures += !expected.failure.empty();
  }
  EXPECT_GE(failures, files.size() / 2);
}

TEST_F(RasterDecoderTest, BmpVariants) {
  const Bytes two_by_two = {1, 2, 3, 255, 4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255};
  const auto bottom_up = "\x09\x08\x07\x0C\x0B\x0A\0\0\x03\x02\x01\x06\x05\x04\0\0"s;
  const auto top_down = "\x03\x02\x01\x06\x05\x04\0\0\x09\x08\x07\x0C\x0B\x0A\0\0"s;
  const std::vector<std::uint32_t> colors = {0x000000, 0x102030, 0xFFFFFF, 0xAABBCC};
  const auto indexed = [&](const std::vector<std::size_t>& indices) {
    Bytes pixels;
    for (const std::size_t i : indices) {
      for (const int shift : {16, 8, 0}) pixels.push_back(static_cast<std::uint8_t>(colors[i] >> shift));
      pixels.push_back(255);
    }
    return pixels;
  };
  const std::vector<std::uint32_t> argb = {0xFF0000, 0xFF00, 0xFF, 0xFF000000};
  const struct {
    const char* name;
    BmpFile file;  // header, width, height, bits, compression, masks, palette, data
    Bytes pixels;
    bool has_alpha = false;
  } cases[] = {
      {"24 bit, top down", {40, 2, -2, 24, 0, {}, {}, top_down}, two_by_two},
      {"core header", {12, 2, 2, 24, 0, {}, {}, bottom_up}, two_by_two},
      {"core header, 1 bit", {12, 3, 1, 1, 0, {}, {0, 0x102030}, "\xA0\0\0\0"s}, indexed({1, 0, 1})},
      {"core header, short palette", {12, 3, 1, 8, 0, {}, colors, "\x03\x01\x02\0"s}, indexed({3, 1, 2})},
      {"OS/2 header of 16 bytes", {16, 2, 1, 4, 0, {}, colors, "\x31\0\0\0"s}, indexed({3, 1})},
      {"4 bit", {40, 3, 1, 4, 0, {}, colors, "\x13\x20\0\0"s}, indexed({1, 3, 2})},
      {"index without an entry", {40, 1, 1, 8, 0, {}, colors, "\x09\0\0\0"s}, {0, 0, 0, 255}},
      {"5 5 5", {40, 2, 1, 16, 0, {}, {}, "\xFF\x7F\x10\x02"s}, {255, 255, 255, 255, 0, 132, 132, 255}},
      {"5 6 5", {40, 1, 1, 16, 3, {0xF800, 0x7E0, 0x1F}, {}, "\x01\x08\0\0"s}, {8, 0, 8, 255}},
      {"4 4 4 4", {40, 1, 1, 16, 6, {0xF00, 0xF0, 0xF, 0xF000}, {}, "\x21\x43\0\0"s}, {51, 34, 17, 68}, true},
      {"32 bit without alpha", {40, 1, 1, 32, 0, {}, {}, "\x01\x02\x03\x04"s}, {3, 2, 1, 255}},
      {"32 bit, fourth byte varies",
       {40, 2, 1, 32, 0, {}, {}, "\x01\x02\x03\x04\x01\x02\x03\x05"s},
       {3, 2, 1, 255, 3, 2, 1, 255}},
      {"version 4 without fields", {108, 1, 1, 32, 0, argb, {}, "\x01\x02\x03\x04"s}, {3, 2, 1, 255}},
      {"version 5 with alpha", {124, 1, 1, 32, 3, argb, {}, "\x01\x02\x03\x04"s}, {3, 2, 1, 4}, true},
      {"10 bits a sample",
       {40, 1, 1, 32, 3, {0x3FF00000, 0xFFC00, 0x3FF}, {}, "\xFF\x13\0\x20"s},
       {128, 1, 255, 255}},
      {"8 bit run lengths",
       {40, 3, 3, 8, 1, {}, colors, "\2\1\0\0\0\3\1\2\3\0\0\0\0\2\1\0\x9\3\0\1"s},
       indexed({0, 3, 3, 1, 2, 3, 1, 1, 0})},
      {"4 bit run lengths",
       {40, 3, 2, 4, 2, {}, colors, "\3\x12\0\0\0\3\x32\x10\0\1"s},
       indexed({3, 2, 1, 1, 2, 1})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decode(c.file.bytes()), c.pixels);
    EXPECT_EQ(info_.has_alpha, c.has_alpha);
  }
  // By rows and at once, both of the one file that looks as if it had alpha.
  EXPECT_EQ(log_.count("the fourth byte of its pixels varies"), 2u);
}

TEST_F(RasterDecoderTest, DamageThatCostsNoRowIsTold) {
  const std::string plain = JpegFile{}.bytes(), scans = JpegFile{.progressive = true}.bytes();
  const auto insert = [](std::string file, std::size_t at, const std::string& bytes) {
    return file.insert(at, bytes);
  };
  const std::pair<std::string, const char*> cases[] = {
      {plain, ""},
      {scans, ""},
      {insert(plain, plain.size() - 2, std::string(40, '\0')), ""},  // filler
      {plain + "behind the end", ""},
      {insert(plain, plain.size() - 2, "left over"), "extraneous bytes before marker 0xd9"},
      {insert(scans, scans.rfind("\xFF\xDA"), "left over"), "9 extraneous bytes before marker 0xda"},
      {insert(plain, plain.find("\xFF\xC0"), "?"), "1 extraneous bytes before marker 0xc0"},
  };
  for (const auto& [file, damage] : cases) {
    log_.take();
    EXPECT_EQ(failure(file), "");
    const auto lines = log_.lines();
    ASSERT_EQ(lines.size(), *damage ? 2u : 0u) << damage;  // by rows and at once
    for (const std::string& line : lines)
      EXPECT_THAT(line, AllOf(StartsWith("[WARN ] Art '"), HasSubstr(damage)));
  }
}

TEST_F(RasterDecoderTest, BmpRefusals) {
  const std::vector<std::uint32_t> colors(4, 0);
  const char* const compression = "unknown compression";
  const char* const short_file = "the file is too short for its size in pixels";
  const struct {
    BmpFile file;  // header, width, height, bits, compression, masks, palette, data
    const char* text;
  } cases[] = {
      {{41}, "unknown header size"},
      {{12, 900, 900, 8}, short_file},
      {{40, -3}, "negative width"},
      {{40, 3, 2, 2}, "unknown pixel size"},
      {{40, 3, 2, 24, 3, {1, 2, 4}}, compression},
      {{40, 3, -2, 8, 1, {}, colors}, compression},
      {{40, 3, 2, 8, 4, {}, colors}, compression},
      {{40, 3, 2, 16, 3, {5, 2, 8}}, "a mask has gaps"},
      {{40, 3, 2, 16, 3, {6, 2, 8}}, "masks overlap"},
      {{40, 3, 2, 16, 3, {0x30000, 2, 8}}, "a mask is wider than a pixel"},
      {{40, 3, 2, 24, 0, {}, {}, std::string(23, 'x')}, short_file},
      {{40, 9000, 9000, 8, 1, {}, colors, "\1\2\0\1"s}, short_file},
      {{40, 3, 2, 8, 1, {}, colors, "\3\1\0\3\1"s}, "the file ends early"},
  };
  for (const auto& c : cases) EXPECT_EQ(failure(c.file.bytes()), "BMP: "s + c.text);
  std::string overlapping = BmpFile{.bits = 8, .palette = colors, .data = "12345678"}.bytes();
  overlapping[10] = 60;
  EXPECT_EQ(failure(overlapping), "BMP: pixels overlap the palette");
}

TEST_F(RasterDecoderTest, CutFilesFailAtEveryLength) {
  const Bytes busy = rgba_image(40, 30, busy_pixel);
  const std::string files[] = {
      PngFile{}.bytes(),
      PngFile{.interlaced = true}.bytes(),
      JpegFile{}.bytes(),
      JpegFile{.progressive = true}.bytes(),
      webp_bytes(busy, 40, 30, true),
      webp_bytes(busy, 40, 30, false),
      animated_webp(50, 40, {{6, 4, 40, 30, webp_bytes(busy, 40, 30, true)}}),
      BmpFile{.height = 9, .data = std::string(9 * 12, 'x')}.bytes(),
  };
  for (std::size_t i = 0; i < std::size(files); ++i) {
    ASSERT_EQ(failure(files[i]), "") << i;
    // The last bytes of a PNG and of a JPEG with one scan are end marks, without which all pixels are there.
    for (std::size_t size = 0; size + 24 < files[i].size(); size += 1 + size / 20)
      EXPECT_NE(failure(files[i].substr(0, size)), "") << "file " << i << " of " << size << " bytes";
  }
}

/// A file with its last scan `times` times more.
std::string with_repeated_scan(const std::string& jpeg, int times) {
  const std::size_t scan = jpeg.rfind("\xFF\xDA"), end = jpeg.size() - 2;
  std::string file = jpeg.substr(0, end);
  for (int i = 0; i < times; ++i) file += jpeg.substr(scan, end - scan);
  return file + jpeg.substr(end);
}

TEST_F(RasterDecoderTest, BombsCostLittle) {
#ifdef __SANITIZE_ADDRESS__
  constexpr double kMaxSeconds = 10.0;
#else
  constexpr double kMaxSeconds = 1.0;
#endif
  constexpr long kMaxKibibytes = 256 << 10;
  JpegFile flat{.components = 1, .stored = JCS_GRAYSCALE, .progressive = true};
  flat.sample = [](auto, auto, int) { return std::uint8_t{99}; };
  const std::string small = flat.bytes();
  flat.width = flat.height = 6500;
  std::string claim = JpegFile{.progressive = true}.bytes();
  claim.replace(claim.find("\xFF\xC2"s) + 5, 4, "\x75\x30\x75\x30");
  std::string lossy = webp_bytes(rgba_image(9, 5,
                                            [](auto, auto) {
                                              return Rgba{9, 9, 9, 255};
                                            }),
                                 9, 5, false);
  lossy.replace(lossy.find("\x9D\x01\x2A") + 3, 4, "\xFF\x3F\xFF\x3F");
  std::string chunks;
  for (int i = 0; i < 300'000; ++i) chunks += "\0\0\0\1tEXtacrc?"s;
  chunks = PngFile{}.bytes().insert(33, chunks);
  const struct {
    const char* name;
    std::string file, failure;
  } cases[] = {
      {"scans", with_repeated_scan(small, 150), "JPEG: too many scans"},
      {"fewer scans", with_repeated_scan(small, 60), ""},
      {"scans of a large image", with_repeated_scan(flat.bytes(), 60), "JPEG: too many scans"},
      {"JPEG size", claim, "JPEG: the file is too short for its size in pixels"},
      {"WebP size", lossy, "WebP: the file is too short for its size in pixels"},
      {"PNG size", png_header_only(12000, 12000), "PNG: the file is too short for its size in pixels"},
      {"PNG width", png_header_only(1'000'000'000, 1), "rows are too long"},
      {"PNG chunks", chunks, ""},
  };
  for (const auto& c : cases) {
    rusage before{}, after{};
    ::getrusage(RUSAGE_SELF, &before);
    const std::clock_t start = std::clock();
    EXPECT_EQ(failure(c.file), c.failure) << c.name;
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(seconds, kMaxSeconds) << c.name;
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, kMaxKibibytes) << c.name;
  }
}

TEST(RasterFuzzReplay, SeedsEndInPixelsOrExceptions) {
  const auto replay = [](const std::string& name, fuzz::OpenDecoder open) {
    const auto decode = [&](const auto* data, std::size_t size) { fuzz::decode_image(open, data, size); };
    EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/" + name, 3, decode), 3) << name;
  };
  replay("jpeg", open_jpeg_decoder);
  replay("webp", open_webp_decoder);
  replay("bmp", open_bmp_decoder);
  EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/png", 3, fuzz::compare_png_decoders), 7);
  EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/raster_probe", 3, fuzz::probe_header), 3);
}

}  // namespace
}  // namespace nvo::test
