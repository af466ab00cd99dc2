#include "image/tiff_reader.h"

#include <stdexcept>

#include "image/image_test.h"
#include "support/seed_replay.h"
#include "support/tiff_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

class TiffReaderTest : public ImageTest {
 protected:
  const std::string path_ = dir_.file("a.tif");

  TiffReader open(const TiffFile& file) {
    write_tiff(path_, file);
    TiffReader reader;
    reader.open(path_);
    return reader;
  }

  /// The reader's own lines, without those of libtiff.
  std::vector<std::string> own_lines() {
    auto lines = log_.take();
    std::erase_if(lines, [](const std::string& line) { return line.find("libtiff: ") != std::string::npos; });
    return lines;
  }
};

constexpr std::uint16_t kCmyk = PHOTOMETRIC_SEPARATED, kRgb = PHOTOMETRIC_RGB, kGray = PHOTOMETRIC_MINISBLACK;

TEST_F(TiffReaderTest, DecidesWhatSamplesMean) {
  const struct {
    TiffFile file;
    const char* channels;                ///< index:name=role, by the numbers of the log
    std::vector<const char*> decisions;  ///< as logged
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
      {{.samples = 6, .photometric = kCmyk, .extra_samples = {0, 0}},
       "0:Cyan=0 1:Magenta=1 2:Yellow=2 3:Black=3 4:White=4 5:Alpha(inferred)=6",
       {"[INFO ] ExtraSample[0] -> White (unspecified)", "[INFO ] ExtraSample[1] -> Alpha (inferred)"}},
      {{.samples = 5, .photometric = kCmyk, .extra_samples = {1, 0, 0}},
       "0:Cyan=0 1:Magenta=1 2:Yellow=2 3:Black=3 4:Alpha(assoc)=6",
       {"[INFO ] ExtraSample[0] -> Alpha (type=1)",
        "[WARN ] TiffReader: ignoring ExtraSamples entry 1 beyond samples-per-pixel=5"}},
      {{.samples = 6,
        .photometric = kCmyk,
        .extra_samples = {1, 0},
        .ink_names = {"c", "m", "y", "k", "wht"}},
       "0:c=0 1:m=1 2:y=2 3:k=3 4:wht=4 5:Alpha(inferred)=6",
       {"[INFO ] Spot channel 'wht' -> White", "[INFO ] ExtraSample[1] -> Alpha (inferred)"}},
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
    const auto lines = own_lines();
    ASSERT_GT(lines.size(), c.decisions.size());
    EXPECT_THAT(std::vector(lines.begin(), lines.begin() + c.decisions.size()),
                ::testing::ElementsAreArray(c.decisions));
    EXPECT_THAT(lines[c.decisions.size()], HasSubstr("TIFF meta: 5x4 spp="));
  }
}

TEST_F(TiffReaderTest, NormalisesResolution) {
  const struct {
    float x, y;
    std::uint16_t unit;
    float dpi_x, dpi_y;
    const char* line;
  } cases[] = {
      {118.11f, 118.11f, 3, 118.11f * 2.54f, 118.11f * 2.54f, "unit=centimeter dpi_norm=299.999x299.999"},
      {240, 0, 2, 240, 240,
       "TIFF meta: 5x4 spp=1 bps=8 res_raw=240x0 unit=inch dpi_norm=240x240 [TIFF] [Gray]"},
      {0, 600, 2, 600, 600, "res_raw=0x600 unit=inch"},
      {0, 0, 0, 300, 300, "res_raw=0x0 unit=none"},
      {72, 144, 1, 72, 144, "res_raw=72x144 unit=none"},
  };
  for (const auto& c : cases) {
    const TiffMeta meta = open({.x_resolution = c.x, .y_resolution = c.y, .unit = c.unit}).read_meta();
    EXPECT_EQ(meta.dpi_x, c.dpi_x);
    EXPECT_EQ(meta.dpi_y, c.dpi_y);
    EXPECT_THAT(own_lines()[0], HasSubstr(c.line));
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
  EXPECT_EQ(failure_of([&] { reader.read_rows(0, 1); }), "TiffReader::read_meta called before open()");
  for (const std::string& path : {dir_.file("missing.tif"), dir_.path().string()})
    EXPECT_EQ(failure_of([&] { reader.open(path); }), "TiffReader: cannot open '" + path + "'");
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
  };
  for (const TiffFile& file : layouts) {
    SCOPED_TRACE("layout " + std::to_string(&file - layouts));
    TiffReader reader = open(file);
    EXPECT_EQ(reader.read_meta().is_bigtiff, file.big);
    EXPECT_EQ(reader.read_image(), file.pixels());
    const auto expect_band = [&](std::uint32_t y, std::uint32_t rows) {
      ASSERT_EQ(reader.read_rows(y, rows), file.band(y, rows)) << "rows " << y << " + " << rows;
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

TEST_F(TiffReaderTest, InvertsOnlyTheGraySampleOfMinIsWhite) {
  const TiffFile file{.samples = 2, .photometric = {}, .extra_samples = {1}};
  auto expected = file.pixels();
  for (std::size_t i = 0; i < expected.size(); i += 2)
    expected[i] = static_cast<std::uint8_t>(255 - expected[i]);
  TiffReader reader = open(file);
  EXPECT_EQ(reader.read_image(), expected);
  EXPECT_EQ(reader.read_image(), expected) << "a kept strip must stay as the file has it";
}

TEST_F(TiffReaderTest, KeepsThePiecesThatTheNextBandNeeds) {
  for (const TiffFile& file : {TiffFile{.width = 64, .height = 64, .rows_per_strip = 32},
                               TiffFile{.width = 64, .height = 64, .tile_width = 64, .tile_length = 32}}) {
    TiffReader reader = open(file);
    ASSERT_EQ(reader.read_rows(20, 24), file.band(20, 24));
    for (const std::uint32_t piece : {0u, 1u}) damage_piece(path_, piece);
    EXPECT_EQ(reader.read_rows(0, 64), file.band(0, 64)) << "a piece was decoded again";
    EXPECT_THAT(own_lines(), ::testing::Contains(::testing::EndsWith(" buffer of 2048 bytes"))
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

TEST_F(TiffReaderTest, AFileCutShortWhileItIsReadGivesAnError) {
  TiffReader reader = open({.width = 700, .height = 600, .compression = COMPRESSION_NONE});
  reader.read_rows(0, 10);
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) / 2);
  EXPECT_THROW(reader.read_rows(590, 10), std::runtime_error);
}

/// Gives every tag of a file that states a size in pixels the value 1 << `bits`.
void claim_size(const std::string& path, int bits) {
  auto bytes = read_all(path);
  for (const int tag :
       {TIFFTAG_IMAGEWIDTH, TIFFTAG_IMAGELENGTH, TIFFTAG_ROWSPERSTRIP, TIFFTAG_TILEWIDTH, TIFFTAG_TILELENGTH})
    for (const char type : {char{TIFF_SHORT}, char{TIFF_LONG}}) {
      // A directory entry is the tag, the type, a count of 1 and the value.
      const char entry[] = {static_cast<char>(tag & 255), static_cast<char>(tag >> 8), type, 0, 1, 0, 0, 0};
      const auto at = bytes.find(std::string(entry, sizeof entry));
      if (at == std::string::npos) continue;
      bytes[at + 2] = TIFF_LONG;
      for (int i = 0; i < 4; ++i) bytes[at + 8 + i] = static_cast<char>((1u << bits) >> 8 * i);
    }
  write_all(path, bytes);
}

TEST_F(TiffReaderTest, HugeClaimsEndInExceptionsAndTakeNoMemory) {
  for (const TiffFile& file : {TiffFile{}, TiffFile{.tile_width = 16, .tile_length = 16}})
    for (const int bits : {15, 30}) {
      write_tiff(path_, file);
      claim_size(path_, bits);
      Bytes out;
      TiffReader reader;
      EXPECT_NE(failure_of([&] { reader.open(path_), reader.read_rows(1, 1, out); }), "");
      EXPECT_TRUE(out.empty());
    }
}

TEST(TiffFuzzReplay, SeedsEndInPixelsOrExceptions) {
  EXPECT_GE(replay_seeds(NVO_FUZZ_CORPUS "/tiff", 5, LLVMFuzzerTestOneInput), 8);
}

}  // namespace
}  // namespace nvo::test
