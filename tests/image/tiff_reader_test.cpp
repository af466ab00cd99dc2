#include "image/tiff_reader.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include <sys/stat.h>

#include "image/image_test.h"
#include "image/tiff_image.h"
#include "support/seed_replay.h"
#include "support/tiff_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

constexpr std::uint16_t kCmyk = PHOTOMETRIC_SEPARATED, kRgb = PHOTOMETRIC_RGB, kGray = PHOTOMETRIC_MINISBLACK;

/// Bands (first row, rows) from the bottom up, with an overlap.
std::vector<std::pair<std::uint32_t, std::uint32_t>> bands_upwards(std::uint32_t height) {
  std::vector<std::pair<std::uint32_t, std::uint32_t>> bands;
  for (std::uint32_t end = height; end > 0; end = end > 40 ? end - 35 : 0)
    bands.emplace_back(end - std::min(end, 40u), std::min(end, 40u));
  return bands;
}

/// One result of reading a file: its bands upwards, or an error; and the log without the lines on buffers,
/// which threads have of their own.
struct Reading {
  std::vector<Bytes> bands;
  std::string error;
  std::vector<std::string> log;
};

class TiffReaderTest : public ImageTest {
 protected:
  const std::string path_ = dir_.file("a.tif");

  TiffReader open(const TiffFile& file) {
    write_tiff(path_, file);
    TiffReader reader;
    reader.open(path_);
    return reader;
  }

  /// The log without lines that contain one of these texts.
  std::vector<std::string> lines_without(std::initializer_list<const char*> texts) {
    auto lines = log_.take();
    for (const char* text : texts)
      std::erase_if(lines, [&](const std::string& line) { return line.find(text) != std::string::npos; });
    return lines;
  }

  /// Opens the file for a reader that divides its work among so many threads.
  void with_reader(std::uint32_t threads, const std::function<void(TiffReader&)>& use) const {
    ThreadPlan plan;
    plan.compose = {threads > 1 ? WorkDivision::always : WorkDivision::never, threads};
    TiffReader reader(plan);
    reader.open(path_);
    use(reader);
  }

  Reading read_upwards(std::uint32_t threads, std::uint32_t height) {
    Reading reading;
    log_.take();
    with_reader(threads, [&](TiffReader& reader) {
      reading.error = failure_of([&] {
        for (const auto& [y, rows] : bands_upwards(height))
          reading.bands.push_back(reader.read_rows(y, rows));
      });
    });
    reading.log = lines_without({" buffer of "});
    return reading;
  }

  /// What one thread reads; expects the same of several, so many times each.
  Reading expect_same(std::uint32_t height, std::initializer_list<std::uint32_t> thread_counts, int runs) {
    const Reading plain = read_upwards(1, height);
    for (const std::uint32_t threads : thread_counts)
      for (int run = 0; run < runs; ++run) {
        const Reading reading = read_upwards(threads, height);
        EXPECT_EQ(reading.error, plain.error) << threads;
        EXPECT_EQ(reading.log, plain.log) << threads;
        EXPECT_TRUE(reading.bands == plain.bands) << threads;
      }
    return plain;
  }

  /// Writes a file whose strips or tiles hold `packed(number)`.
  void write_raw(const TiffFile& file, std::uint32_t pieces,
                 const std::function<std::string(std::uint32_t number)>& packed) const {
    TIFF* tiff = TIFFOpen(path_.c_str(), "w");
    set_tags(tiff, file);
    for (std::uint32_t number = 0; number < pieces; ++number) {
      std::string bytes = packed(number);
      const auto write = file.tile_width != 0 ? TIFFWriteRawTile : TIFFWriteRawStrip;
      write(tiff, number, bytes.data(), static_cast<tmsize_t>(bytes.size()));
    }
    TIFFClose(tiff);
  }
};

TEST_F(TiffReaderTest, DecidesWhatSamplesMean) {
  const struct {
    TiffFile file;
    const char* channels;                ///< index:name=role, by the numbers of the log
    std::vector<std::string> decisions;  ///< as logged
  } cases[] = {
      {{.samples = 2, .photometric = {}},
       "0:Gray(min-is-white)=255 1:Alpha(inferred)=6",
       {"[INFO ] Grayscale ExtraSample[0] -> Alpha (inferred)"}},
      {{.samples = 4, .photometric = kGray, .extra_samples = {2, 0, 1}},
       "0:Gray=255 1:Alpha(unassoc)=6 2:Spot_1=5 3:Spot_2=5",
       {"[INFO ] Grayscale ExtraSample[0] -> Alpha (type=2)",
        "[WARN ] Grayscale ExtraSample[1] -> Spot (ignored)",
        "[WARN ] Grayscale ExtraSample[2] -> Spot (ignored)"}},
      {{.samples = 7, .photometric = kRgb, .extra_samples = {2, 0, 0, 1}},
       "0:Red=255 1:Green=255 2:Blue=255 3:Alpha(unassoc)=6 4:White=4 5:Spot_2=5 6:Spot_3=5",
       {"[INFO ] RGB ExtraSample[0] -> Alpha (type=2)", "[INFO ] RGB ExtraSample[1] -> White (unspecified)",
        "[WARN ] RGB ExtraSample[2] -> Spot (ignored)", "[WARN ] RGB ExtraSample[3] -> Spot (ignored)"}},
      {{.samples = 4, .photometric = kCmyk, .ink_names = {"c", "m", "y", "k"}},
       "0:Cyan=0 1:Magenta=1 2:Yellow=2 3:Black=3",
       {}},
      {{.samples = 5, .photometric = kCmyk, .ink_names = {"c", "m", "", "k", "Varnish"}},
       "0:c=0 1:m=1 2:=2 3:k=3 4:Varnish=4",
       {"[INFO ] Spot channel 'Varnish' (first spot) -> White"}},
      {{.samples = 7, .photometric = kCmyk, .ink_names = {"c", "m", "y", "k", "My WHITE", "Gold"}},
       "0:c=0 1:m=1 2:y=2 3:k=3 4:My WHITE=4 5:Gold=5 6:Spot_2=5",
       {"[INFO ] Spot channel 'My WHITE' -> White",
        "[WARN ] Spot channel 'Gold' at index 5 ignored (only first spot used)",
        "[WARN ] Extra channel 2 missing InkNames entry; treating as Spot (ignored)"}},
      {{.samples = 5, .photometric = kCmyk},
       "0:Cyan=0 1:Magenta=1 2:Yellow=2 3:Black=3 4:Spot_0=5",
       {"[WARN ] No InkNames / ExtraSamples tags. Treating 1 extra channel(s) as spot.",
        "[WARN ] Extra channel 0 has no InkNames/ExtraSamples signal; treating as Spot (ignored)"}},
      {{.samples = 6, .photometric = kCmyk, .extra_samples = {0, 0, 1, 1}},
       "0:Cyan=0 1:Magenta=1 2:Yellow=2 3:Black=3 4:White=4 5:Alpha(inferred)=6",
       {"[INFO ] ExtraSample[0] -> White (unspecified)", "[INFO ] ExtraSample[1] -> Alpha (inferred)",
        "[WARN ] TiffReader: ignoring ExtraSamples entry 2 beyond samples-per-pixel=6"}},
      {{.samples = 7,
        .photometric = kCmyk,
        .extra_samples = {1, 1, 0},
        .ink_names = {"c", "m", "y", "k", "wht"}},
       "0:c=0 1:m=1 2:y=2 3:k=3 4:wht=4 5:Alpha(assoc)=6 6:Spot_2=5",
       {"[INFO ] Spot channel 'wht' -> White", "[INFO ] ExtraSample[1] -> Alpha (type=1)",
        "[WARN ] ExtraSample[2] -> Spot (ignored)"}},
      {{.samples = 5, .photometric = kCmyk, .ink_names = {"c", std::string(1280, 'm'), "y", "k", "w", "x"}},
       "0:c=0 1:Magenta=1 2:Yellow=2 3:Black=3 4:Spot_0=5",
       {"[WARN ] TiffReader: TIFF InkNames is not NUL-terminated within 1280 bytes; ignoring remaining names",
        "[WARN ] TiffReader: TIFF NumberOfInks=6 exceeds samples-per-pixel=5; ignoring extra ink names",
        "[WARN ] Extra channel 0 missing InkNames entry; treating as Spot (ignored)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.channels);
    TiffReader reader = open(c.file);
    const TiffMeta meta = reader.read_meta();
    EXPECT_EQ(meta.is_rgb, c.file.photometric != kCmyk);
    EXPECT_EQ(meta.is_gray, !c.file.photometric || c.file.photometric == kGray);
    std::string channels;
    for (const ChannelInfo& channel : meta.channels)
      channels += (channels.empty() ? "" : " ") + std::to_string(channel.index) + ":" + channel.name + "=" +
                  std::to_string(static_cast<std::uint8_t>(channel.role));
    EXPECT_EQ(channels, c.channels);
    EXPECT_EQ(lines_without({"libtiff: ", "[INFO ] TIFF meta: ", "[DEBUG]   channel["}), c.decisions);
  }
}

TEST_F(TiffReaderTest, NormalisesResolution) {
  const struct {
    float x, y;
    std::uint16_t unit;
    const char* line;
  } cases[] = {
      {118.11f, 118.11f, 3, "res_raw=118.11x118.11 unit=centimeter dpi_norm=299.999x299.999"},
      {240, 0, 2, "res_raw=240x0 unit=inch dpi_norm=240x240"},
      {0, 600, 2, "res_raw=0x600 unit=inch dpi_norm=600x600"},
      {0, 0, 0, "res_raw=0x0 unit=none dpi_norm=300x300"},
      {72, 144, 1, "res_raw=72x144 unit=none dpi_norm=72x144"},
  };
  for (const auto& c : cases) {
    open({.x_resolution = c.x, .y_resolution = c.y, .unit = c.unit}).read_meta();
    EXPECT_EQ(lines_without({"libtiff: "})[0],
              "[INFO ] TIFF meta: 5x4 spp=1 bps=8 "s + c.line + " [TIFF] [Gray]");
  }
}

TEST_F(TiffReaderTest, RemarksOnWhatAViewerShowsOtherwise) {
  const auto tag = [](std::uint32_t name, auto value) {
    return [=](TIFF* tiff) { TIFFSetField(tiff, name, value); };
  };
  const auto profile = [](TIFF* tiff) { TIFFSetField(tiff, TIFFTAG_ICCPROFILE, 4, "icc"); };
  TiffFile fine{.samples = 4, .photometric = kRgb, .extra_samples = {2}, .x_resolution = 300, .unit = 2};
  fine.further_tags = tag(TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  const auto with = [&](const std::function<void(TiffFile&)>& change) {
    TiffFile file = fine;
    change(file);
    return file;
  };
  const auto called_by_an_editor = [&](const std::string& name) {
    const auto size = static_cast<char>(1 + name.size());
    const std::string other("8BIM\x03\xed\x03odd\0\0\0\x01.\0", 4 + 2 + 4 + 4 + 2);
    const std::string names =
        std::string("8BIM\x03\xee\0\0\0\0\0", 11) + size + std::string(1, size - 1) + name;
    return with([&](TiffFile& file) {
      file.samples = 5, file.photometric = kCmyk, file.extra_samples = {0};
      file.further_tags = [resources = other + names](TIFF* tiff) {
        TIFFSetField(tiff, TIFFTAG_PHOTOSHOP, resources.size(), resources.data());
      };
    });
  };
  const struct {
    TiffFile file;
    std::vector<std::uint32_t> further_images;  ///< by their NewSubfileType
    std::vector<std::string> notes;             ///< beginnings, in any order
    bool assumed = false, has_profile = false;
  } cases[] = {
      {fine, {FILETYPE_REDUCEDIMAGE, FILETYPE_MASK}, {}},
      {with([&](TiffFile& file) { file.further_tags = profile; }), {}, {}, false, true},
      {with([](TiffFile& file) { file.x_resolution = 0; }),
       {},
       {"The file states no resolution; 300 x 300 dots per inch are assumed, so it prints at 0.02 x 0.01 "
        "inches"},
       true},
      {with([](TiffFile& file) { file.x_resolution = 2, file.unit = 1; }),
       {},
       {"The file's resolution has no unit and is taken as 2 x 2 dots per inch, so it prints at 2.50 x "
        "2.00 "}},
      {with([&](TiffFile& file) { file.further_tags = tag(TIFFTAG_ORIENTATION, ORIENTATION_RIGHTTOP); }),
       {FILETYPE_PAGE, 0, FILETYPE_REDUCEDIMAGE},
       {"Its orientation tag (6) is ignored", "The file holds 3 images, of which only the first is printed"}},
      {fine, std::vector<std::uint32_t>(40, 0), {"The file holds more than 33 images"}},
      {with([](TiffFile& file) {
         file.samples = 5, file.extra_samples = {1, 0};
       }),
       {},
       {"Sample 4 of a pixel is alpha that the colours are already multiplied by",
        "Sample 5 of a pixel has no stated meaning and is taken as white ink"}},
      {with([](TiffFile& file) { file.samples = 2, file.photometric = kGray, file.extra_samples = {}; }),
       {},
       {"Sample 2 of a pixel has no stated meaning and is taken as alpha"}},
      {with([](TiffFile& file) {
         file.samples = 6, file.photometric = kCmyk, file.extra_samples = {0, 0};
         file.ink_names = {"c", "m", "y", "k", "White"};
       }),
       {},
       {"Sample 6 of a pixel has no stated meaning and is taken as alpha"}},
      {with([](TiffFile& file) {
         file.samples = 4, file.photometric = kCmyk, file.extra_samples = {};
         file.ink_names = {"Cyan", "Orange", "YELLOW", "Green"};
       }),
       {},
       {"Its ink 'Orange' is printed as magenta", "Its ink 'Green' is printed as black"}},
      {with([](TiffFile& file) {
         file.samples = 5, file.photometric = kCmyk, file.extra_samples = {0};
         file.ink_names = {"c", "m", "y", "k", "Gold"};
       }),
       {},
       {"Its ink 'Gold' is printed as white ink"}},
      {called_by_an_editor("RDG_White"), {}, {}},
      {called_by_an_editor("Alpha 1"),
       {},
       {"Sample 5 of a pixel ('Alpha 1') has no stated meaning and is taken as white ink"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    write_tiff(path_, c.file);
    for (const std::uint32_t type : c.further_images)
      write_tiff(path_, with([&](TiffFile& file) { file.further_tags = tag(TIFFTAG_SUBFILETYPE, type); }),
                 "a");
    const ImageExtent extent = probe_tiff(path_);
    EXPECT_EQ(extent.resolution_source == ResolutionSource::assumed, c.assumed);
    EXPECT_EQ(extent.has_profile, c.has_profile);
    std::vector<::testing::Matcher<std::string>> beginnings;
    for (const std::string& note : c.notes) beginnings.push_back(StartsWith(note));
    EXPECT_THAT(extent.notes, ::testing::UnorderedElementsAreArray(beginnings));
  }
}

TEST_F(TiffReaderTest, WeighsWhatAFileClaimsAgainstWhatItCanHold) {
  // The most even image there is, with which no compression may fall under its bound.
  for (const std::uint16_t compression : std::initializer_list<std::uint16_t>{
           COMPRESSION_NONE, COMPRESSION_PACKBITS, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
           COMPRESSION_JPEG, COMPRESSION_LZMA, COMPRESSION_ZSTD}) {
    if (!TIFFIsCODECConfigured(compression)) continue;
    for (const std::uint32_t tile : {0u, 1024u}) {
      TiffFile file{
          .samples = 3, .photometric = kRgb, .width = 1500, .height = 1000, .compression = compression};
      file.pixel = [](std::uint32_t, std::uint32_t, std::uint8_t* samples) { std::fill_n(samples, 3, 255); };
      file.rows_per_strip = 1000;
      file.tile_width = file.tile_length = tile;
      write_tiff(path_, file);
      EXPECT_TRUE(weigh_tiff(path_).is_possible()) << compression << ", tile " << tile;
      EXPECT_EQ(weigh_tiff(path_).claimed_bytes, 4'500'000u);
    }
  }
  const struct {
    std::uint16_t compression;
    std::uint32_t pieces, piece_bytes;
    std::uint64_t possible;
  } hostile[] = {
      {COMPRESSION_NONE, 3, 100, 300},   {COMPRESSION_PACKBITS, 1, 100, 6400},
      {COMPRESSION_LZW, 1, 30, 81920},   {COMPRESSION_ADOBE_DEFLATE, 2, 50, 103200},
      {COMPRESSION_CCITTFAX4, 1, 50, 0}, {std::uint16_t{65000}, 1, 50, 0},
  };
  for (const auto& c : hostile) {
    const TiffFile file{.width = 8000, .height = 8000, .compression = c.compression, .rows_per_strip = 2000};
    write_raw(file, c.pieces, [&](std::uint32_t) { return std::string(c.piece_bytes, 'x'); });
    const ImageClaim claim = weigh_tiff(path_);
    EXPECT_EQ(claim.claimed_bytes, 64'000'000u);
    EXPECT_EQ(claim.possible_bytes, c.possible);
    EXPECT_FALSE(claim.is_possible());
  }
}

TEST_F(TiffReaderTest, RefusesWhatItCannotProcess) {
  const std::pair<TiffFile, const char*> cases[] = {
      {{.samples = 65}, "samples-per-pixel=65. Maximum supported channel count is 64."},
      {{.samples = 3, .photometric = kCmyk, .bits = 16}, "bits-per-sample=16. Only 8-bit TIFF is supported."},
      {{.samples = 3, .photometric = kRgb, .planar = PLANARCONFIG_SEPARATE},
       "planar configuration (PLANARCONFIG_SEPARATE). Only interleaved PLANARCONFIG_CONTIG is supported."},
      {{.sample_format = SAMPLEFORMAT_INT},
       "sample format=2. Only unsigned integer 8-bit samples are supported."},
      {{.samples = 3, .photometric = kCmyk}, "samples-per-pixel=3. Expected at least 4 channels (CMYK)."},
      {{.samples = 2, .photometric = kRgb}, "samples-per-pixel=2. Expected at least 3 channels (RGB)."},
      {{.samples = 3, .photometric = PHOTOMETRIC_CIELAB}, "photometric=8"},
  };
  for (const auto& [file, text] : cases) {
    TiffReader reader = open(file);
    EXPECT_EQ(failure_of([&] { reader.read_meta(); }), std::string("TiffReader: unsupported TIFF ") + text);
  }

  TiffReader reader;
  ::mkfifo(dir_.file("pipe.tif").c_str(), 0600);
  for (const char* name : {"pipe.tif", "."})
    EXPECT_EQ(failure_of([&] { reader.open(dir_.file(name)); }),
              "TiffReader: cannot open '" + dir_.file(name) + "'");
  EXPECT_THROW(reader.open(dir_.file("missing.tif")), std::runtime_error);
  EXPECT_TRUE(log_.contains("[ERROR] libtiff: " + dir_.file("missing.tif") + ": No such file or directory"));
}

TEST_F(TiffReaderTest, ReadsAnyBandInAnyOrder) {
  const TiffFile layouts[] = {
      {.samples = 5, .photometric = kCmyk, .width = 23, .height = 40, .rows_per_strip = 7},
      {.samples = 5, .photometric = kCmyk, .width = 23, .height = 40, .rows_per_strip = 1},
      {.samples = 3, .photometric = kRgb, .width = 23, .height = 40, .rows_per_strip = 4'000'000'000},
      {.samples = 3, .photometric = kRgb, .width = 23, .height = 40, .compression = COMPRESSION_NONE},
      {.width = 23, .height = 40, .compression = COMPRESSION_ADOBE_DEFLATE, .big = true},
      {.samples = 4, .photometric = kCmyk, .width = 37, .height = 40, .tile_width = 16, .tile_length = 16},
      {.width = 37, .height = 40, .tile_width = 48, .tile_length = 48, .big = true},
      {.samples = 2, .photometric = {}, .extra_samples = {1}, .width = 23, .height = 40, .rows_per_strip = 7},
  };
  for (const TiffFile& file : layouts) {
    SCOPED_TRACE("layout " + std::to_string(&file - layouts));
    Bytes image = file.pixels();
    if (!file.photometric)  // white is 0, which inverts the gray sample alone
      for (std::size_t i = 0; i < image.size(); i += file.samples) image[i] ^= 0xFF;
    TiffReader reader = open(file);
    EXPECT_EQ(reader.read_meta().is_bigtiff, file.big);
    EXPECT_EQ(reader.read_image(), image);
    const auto expect_band = [&](std::uint32_t y, std::uint32_t rows) {
      ASSERT_EQ(reader.read_rows(y, rows), rows_of(image, file.row_bytes(), y, rows)) << y << " + " << rows;
    };
    for (std::uint32_t height : {1u, 5u, 16u, 33u}) {
      for (std::uint32_t end = file.height; end >= height; --end) expect_band(end - height, height);
      for (std::uint32_t y = 0; y + height <= file.height; ++y) expect_band(y, height);
    }
    for (std::uint32_t i = 0; i < 200; ++i) {
      const std::uint32_t y = i * 7919 % file.height;
      expect_band(y, 1 + i * 104729 % (file.height - y));
    }
    EXPECT_TRUE(reader.read_rows(file.height + 9, 0).empty());
    for (auto [y, rows] : {std::pair{file.height, 1u}, {1u, file.height}, {0u, 0xFFFFFFFFu}})
      EXPECT_EQ(failure_of([&, y = y, rows = rows] { reader.read_rows(y, rows); }),
                "TiffReader: row-range request is out of bounds");
  }
}

TEST_F(TiffReaderTest, GivesTheSamplesOfTheFileWithAnyPredictorAndThreads) {
  for (const std::uint16_t samples : std::initializer_list<std::uint16_t>{1, 2, 3, 4, 5, 8, 9})
    for (const std::uint16_t predictor : std::initializer_list<std::uint16_t>{1, 2})
      for (const std::uint32_t tile : {0u, 16u}) {
        TiffFile file{.samples = samples, .width = 53, .height = 130, .predictor = predictor};
        file.compression = COMPRESSION_ADOBE_DEFLATE;
        file.rows_per_strip = 7;
        file.tile_width = file.tile_length = tile;
        write_tiff(path_, file);
        SCOPED_TRACE(std::to_string(samples) + " samples, predictor " + std::to_string(predictor));
        const Reading plain = expect_same(file.height, {2, 3, 16}, 1);
        std::vector<Bytes> expected;
        for (const auto& [y, rows] : bands_upwards(file.height)) expected.push_back(file.band(y, rows));
        ASSERT_EQ(plain.bands, expected);
      }
}

// Such a row is not kept, and room for its rows is made as they come.
TEST_F(TiffReaderTest, TilesOfARowAbove64MiBAreDecodedSideBySide) {
  TiffFile file{.samples = 8, .photometric = PHOTOMETRIC_SEPARATED, .width = 8300, .height = 1024};
  file.compression = COMPRESSION_PACKBITS;
  file.tile_width = 128, file.tile_length = 1024;
  file.pixel = [&](std::uint32_t x, std::uint32_t, std::uint8_t* samples) {
    std::fill_n(samples, file.samples, static_cast<std::uint8_t>(x / file.tile_width + 1));
  };
  write_tiff(path_, file);
  const Bytes expected = file.band(500, 60);
  for (const std::uint32_t threads : {1u, 2u, 3u})
    with_reader(threads,
                [&](TiffReader& reader) { EXPECT_TRUE(reader.read_rows(500, 60) == expected) << threads; });
}

/// A strip of codes of nine bits, in the order of TIFF's LZW or in the old one.
std::string lzw_strip(std::uint32_t first_value, std::uint32_t width, bool old_style) {
  std::vector<unsigned> codes{256};
  for (std::uint32_t x = 0; x < width; ++x) codes.push_back((first_value + x) % 256);
  codes.push_back(257);
  std::string bytes((codes.size() * 9 + 7) / 8, '\0');
  for (std::size_t i = 0; i < codes.size() * 9; ++i) {
    const bool set = codes[i / 9] >> (old_style ? i % 9 : 8 - i % 9) & 1;
    if (set) bytes[i / 8] = static_cast<char>(bytes[i / 8] | (old_style ? 1 << i % 8 : 0x80 >> i % 8));
  }
  return bytes;
}

/// Strips with tables of their own, different ones, and strips without, which take those of the strip before.
void write_jpeg_without_some_tables(const std::string& path, const TiffFile& file) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  set_tags(tiff, file);
  TIFFSetField(tiff, TIFFTAG_JPEGTABLESMODE, 0);
  const Bytes pixels = file.pixels();
  for (std::uint32_t y = 0; y < file.height; ++y)
    TIFFWriteScanline(tiff, const_cast<std::uint8_t*>(&pixels[y * file.row_bytes()]), y, 0);
  TIFFClose(tiff);
  std::string bytes = read_all(path);
  constexpr std::string_view kTable = "\xff\xdb", kComment = "\xff\xfe";
  constexpr std::size_t kBeforeValues = 5, kValues = 64;
  int tables = 0;
  for (auto at = bytes.find(kTable); at != bytes.npos; at = bytes.find(kTable, at + 2), ++tables)
    if (tables % 3 == 0)
      bytes.replace(at + kBeforeValues, kValues, kValues, static_cast<char>(tables + 1));
    else
      bytes.replace(at, kTable.size(), kComment);
  write_all(path, bytes);
}

TEST_F(TiffReaderTest, PiecesThatLeanOnOthersAreDecodedAsInOrder) {
  // Which of two dialects a decoder expects, it takes from the first strip that it sees, here from strip 288.
  const TiffFile lzw{.width = 100, .height = 328, .rows_per_strip = 1};
  write_raw(lzw, lzw.height, [&](std::uint32_t y) { return lzw_strip(y, lzw.width, y % 3 == 0); });
  EXPECT_EQ(expect_same(lzw.height, {3}, 20).error, "TiffReader: error reading strip 289");

  const TiffFile jpeg{.width = 64, .height = 328, .compression = COMPRESSION_JPEG, .rows_per_strip = 8};
  write_jpeg_without_some_tables(path_, jpeg);
  EXPECT_EQ(expect_same(jpeg.height, {3}, 20).error, "");
}

TEST_F(TiffReaderTest, SeveralDamagedPiecesFailAsInOrder) {
  TiffFile file{.samples = 4, .photometric = PHOTOMETRIC_SEPARATED, .width = 90, .height = 96};
  file.compression = COMPRESSION_ADOBE_DEFLATE;
  file.predictor = PREDICTOR_HORIZONTAL;
  file.rows_per_strip = 4;
  for (const std::uint32_t tile : {0u, 16u}) {
    file.tile_width = file.tile_length = tile;
    write_tiff(path_, file);
    for (const std::uint32_t piece : {14u, 15u, 17u}) damage_piece(path_, piece);
    EXPECT_THAT(expect_same(file.height, {2, 5}, 10).error, HasSubstr("error reading"));
  }
}

TEST_F(TiffReaderTest, AFileWrittenAnewIsNotDecodedIntoBuffersOfTheOldOne) {
  TiffFile file{.width = 1024, .height = 512, .compression = COMPRESSION_NONE, .tile_width = 16};
  file.tile_length = 16;
  write_tiff(path_, file);
  with_reader(3, [&](TiffReader& reader) {
    file.tile_width = file.tile_length = 512;
    write_tiff(path_, file);
    EXPECT_EQ(reader.read_rows(8, 40).size(), std::size_t{1024} * 40);
  });
}

// In a read of the whole image these go straight to their place. The last strip or tile is shorter than the
// others; the only tile reaches beyond the image.
TEST_F(TiffReaderTest, PiecesAbove64MiBAreThoseOfTheFile) {
  TiffFile file{.samples = 3, .photometric = kRgb, .width = 8000, .height = 4000};
  file.compression = COMPRESSION_ADOBE_DEFLATE;
  file.predictor = PREDICTOR_HORIZONTAL;
  file.further_tags = [](TIFF* tiff) { TIFFSetField(tiff, TIFFTAG_ZIPQUALITY, 1); };
  file.rows_per_strip = 3000;
  const Bytes pixels = file.pixels();
  for (const auto& [tile_width, tile_length] : {std::pair(0u, 0u), {8000u, 3008u}, {8016u, 4016u}}) {
    file.tile_width = tile_width, file.tile_length = tile_length;
    TiffReader reader = open(file);
    Bytes image(1000, 0xAA);
    reader.read_rows(0, file.height, image);
    EXPECT_TRUE(image == pixels) << tile_width;
    for (const std::string& line : log_.lines())
      EXPECT_THAT(line, ::testing::Not(HasSubstr("buffer of " + std::to_string(8016 * 4016 * 3))));
    EXPECT_TRUE(reader.read_rows(2900, 200) == rows_of(pixels, file.row_bytes(), 2900, 200)) << tile_width;
  }
}

TEST_F(TiffReaderTest, AFileCutShortWhileItIsReadGivesAnError) {
  TiffReader reader = open({.width = 700, .height = 600, .compression = COMPRESSION_NONE});
  reader.read_rows(0, 10);
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) / 2);
  EXPECT_THROW(reader.read_rows(590, 10), std::runtime_error);
}

TEST_F(TiffReaderTest, KeepsThePiecesThatTheNextBandNeeds) {
  for (const TiffFile& file : {TiffFile{.width = 64, .height = 64, .rows_per_strip = 32},
                               TiffFile{.width = 64, .height = 64, .tile_width = 64, .tile_length = 32}}) {
    TiffReader reader = open(file);
    ASSERT_EQ(reader.read_rows(20, 24), file.band(20, 24));
    for (const std::uint32_t piece : {0u, 1u}) damage_piece(path_, piece);
    EXPECT_EQ(reader.read_rows(0, 64), file.band(0, 64)) << "a piece was decoded again";
    EXPECT_THAT(lines_without({"libtiff: "}),
                ::testing::Contains(::testing::EndsWith(" buffer of 2048 bytes"))
                    .Times(file.tile_width == 0 ? 2 : 3));
  }
}

TEST_F(TiffReaderTest, FindsDamageOnlyInTheRowsReadAndStaysUsable) {
  TiffFile file{.width = 64, .height = 64, .compression = COMPRESSION_ADOBE_DEFLATE, .rows_per_strip = 16};
  for (const char* text : {"TiffReader: error reading strip 3", "TiffReader: error reading tile at 0,48"}) {
    TiffReader reader = open(file);
    damage_piece(path_, 3);
    EXPECT_EQ(reader.read_rows(0, 48), file.band(0, 48));
    EXPECT_EQ(failure_of([&] { reader.read_rows(40, 9); }), text);
    EXPECT_EQ(reader.read_rows(30, 18), file.band(30, 18));
    EXPECT_EQ(failure_of([&] { reader.read_rows(63, 1); }), text);
    file.tile_width = 64, file.tile_length = 16;
  }
}

TEST_F(TiffReaderTest, DamagedPixelsAreTheSameInEveryRun) {
  // libtiff takes the early end of this file's first tile for success and leaves the rest of the buffer as it
  // was.
  const auto read_after = [](std::uint8_t rubbish, std::uint32_t rows_before) {
    std::vector<Bytes>(8, Bytes(16 * 16 * 5, rubbish)).clear();
    TiffReader reader;
    reader.open(NVO_FUZZ_CORPUS "/tiff/zip_tile_ends_early.tif");
    reader.read_rows(16, rows_before);
    return reader.read_rows(0, 16);
  };
  EXPECT_EQ(read_after(0x11, 0), read_after(0xEE, 0));
  EXPECT_EQ(read_after(0x11, 0), read_after(0x11, 2)) << "nor do they hang on what was read before";
}

TEST_F(TiffReaderTest, HugeClaimsEndInExceptionsAndTakeNoMemory) {
  for (const std::uint32_t side : {1u << 15, 1u << 30})
    for (const std::uint32_t tile : {0u, side}) {
      TiffFile file{.width = side, .height = side, .rows_per_strip = side};
      file.tile_width = file.tile_length = tile;
      write_raw(file, 1, [](std::uint32_t) { return lzw_strip(0, 100, false); });
      Bytes out;
      TiffReader reader;
      reader.open(path_);
      EXPECT_THAT(failure_of([&] { reader.read_rows(1, 1, out); }),
                  StartsWith(side < 1u << 30 ? "TiffReader: error reading "s
                                             : "TiffReader: unsupported TIFF "s + (tile ? "tile" : "strip") +
                                                   " of 1152921504606846976 bytes. At most 2147483648 "));
      EXPECT_TRUE(out.empty());
    }
}

TEST(TiffFuzzReplay, SeedsEndInPixelsOrExceptions) {
  EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/tiff", 5, LLVMFuzzerTestOneInput), 8);
}

}  // namespace
}  // namespace nvo::test
