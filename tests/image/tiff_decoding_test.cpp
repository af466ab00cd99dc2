// Decoding in one thread and in several, with libtiff's own way of undoing differences as the plain form.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "image/tiff_reader.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// The way that composition divides its work, for the life of the object.
class ComposeThreads {
 public:
  explicit ComposeThreads(int threads) {
    ::setenv("NVO_RIP_PARALLEL_COMPOSE_ITEMS", threads > 1 ? "1" : "0", 1);
    ::setenv("NVO_RIP_COMPOSE_THREADS", std::to_string(threads).c_str(), 1);
  }
  ~ComposeThreads() {
    ::unsetenv("NVO_RIP_PARALLEL_COMPOSE_ITEMS");
    ::unsetenv("NVO_RIP_COMPOSE_THREADS");
  }
};

/// One result of reading a file: the pixels of some bands, upwards with an overlap, or an error; and the log
/// without the lines on buffers, which threads have of their own.
struct Reading {
  std::vector<Bytes> bands;
  std::string error;
  std::vector<std::string> log;

  bool operator==(const Reading&) const = default;
};

Reading read_upwards(const std::string& path, int threads, std::uint32_t height) {
  const ComposeThreads setting(threads);
  Reading reading;
  LogCapture log;
  try {
    TiffReader reader;
    reader.open(path);
    for (std::uint32_t end = height; end > 0; end = end > 40 ? end - 35 : 0) {
      const std::uint32_t begin = end > 40 ? end - 40 : 0;
      reading.bands.push_back(reader.read_rows(begin, end - begin));
    }
  } catch (const std::exception& failure) {
    reading.error = failure.what();
  }
  reading.log = log.take();
  std::erase_if(reading.log,
                [](const std::string& line) { return line.find(" buffer of ") != std::string::npos; });
  return reading;
}

TEST(TiffDecoding, GivesTheSamplesOfTheFileWithAnyPredictorAndThreads) {
  const TempDir dir;
  const std::string path = dir.file("a.tif");
  for (const std::uint16_t samples : std::initializer_list<std::uint16_t>{1, 2, 3, 4, 5, 8, 9})
    for (const std::uint16_t predictor : std::initializer_list<std::uint16_t>{1, 2})
      for (const std::uint32_t tile : {0u, 16u}) {
        const TiffFile file{.samples = samples,
                            .width = 53,
                            .height = 130,
                            .compression = COMPRESSION_ADOBE_DEFLATE,
                            .predictor = predictor,
                            .rows_per_strip = 7,
                            .tile_width = tile,
                            .tile_length = tile};
        write_tiff(path, file);
        const Reading plain = read_upwards(path, 1, file.height);
        std::uint32_t end = file.height;
        for (const Bytes& band : plain.bands) {
          const std::uint32_t begin = end > 40 ? end - 40 : 0;
          ASSERT_EQ(band, file.band(begin, end - begin)) << samples << " samples, predictor " << predictor;
          end = end > 40 ? end - 35 : 0;
        }
        for (const int threads : {2, 3, 16})
          EXPECT_TRUE(read_upwards(path, threads, file.height) == plain) << samples << " " << tile;
      }
}

/// PackBits runs of one byte.
std::string runs_of(std::size_t bytes, char value) {
  constexpr std::size_t kLongest = 128;
  std::string packed;
  for (; bytes > 0; bytes -= std::min(bytes, kLongest)) {
    packed += static_cast<char>(1 - static_cast<int>(std::min(bytes, kLongest)));
    packed += value;
  }
  return packed;
}

// Such a row is not kept, and room for its rows is made as they come.
TEST(TiffDecoding, TilesOfARowAbove64MiBAreDecodedSideBySide) {
  const TempDir dir;
  const std::string path = dir.file("a.tif");
  const TiffFile file{.samples = 8,
                      .photometric = PHOTOMETRIC_SEPARATED,
                      .width = 8300,
                      .height = 1024,
                      .compression = COMPRESSION_PACKBITS,
                      .tile_width = 128,
                      .tile_length = 1024};
  const std::uint32_t tiles = (file.width + file.tile_width - 1) / file.tile_width;
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  ASSERT_TRUE(tiff);
  set_tags(tiff, file);
  for (std::uint32_t tile = 0; tile < tiles; ++tile) {
    std::string packed =
        runs_of(file.tile_width * file.tile_length * file.samples, static_cast<char>(tile + 1));
    TIFFWriteRawTile(tiff, tile, packed.data(), static_cast<tmsize_t>(packed.size()));
  }
  TIFFClose(tiff);

  constexpr std::uint32_t kRows = 60;
  Bytes expected(std::size_t{file.row_bytes()} * kRows);
  for (std::size_t i = 0; i < expected.size(); ++i)
    expected[i] = static_cast<std::uint8_t>(i % file.row_bytes() / (file.tile_width * file.samples) + 1);
  for (const int threads : {1, 2, 3}) {
    const ComposeThreads setting(threads);
    TiffReader reader;
    reader.open(path);
    EXPECT_TRUE(reader.read_rows(500, kRows) == expected) << threads;
  }
}

using Codes = std::vector<unsigned>;

/// Codes of nine bits, in the order of TIFF's LZW or in the old one.
std::string lzw_bytes(const Codes& codes, bool old_style) {
  std::string bytes((codes.size() * 9 + 7) / 8, '\0');
  for (std::size_t i = 0; i < codes.size() * 9; ++i) {
    const bool set = codes[i / 9] >> (old_style ? i % 9 : 8 - i % 9) & 1;
    if (set) bytes[i / 8] = static_cast<char>(bytes[i / 8] | (old_style ? 1 << i % 8 : 0x80 >> i % 8));
  }
  return bytes;
}

/// Strips of both dialects; which one a decoder expects, it takes from the first strip that it sees.
void write_two_lzw_dialects(const std::string& path, const TiffFile& file) {
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  set_tags(tiff, file);
  for (std::uint32_t strip = 0; strip < file.height; ++strip) {
    Codes codes{256};
    for (std::uint32_t x = 0; x < file.width; ++x) codes.push_back(strip + x);
    codes.push_back(257);
    std::string bytes = lzw_bytes(codes, strip % 3 == 0);
    TIFFWriteRawStrip(tiff, strip, bytes.data(), static_cast<tmsize_t>(bytes.size()));
  }
  TIFFClose(tiff);
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
  std::ofstream(path, std::ios::binary) << bytes;
}

TEST(TiffDecoding, PiecesThatLeanOnOthersAreDecodedAsInOrder) {
  const TempDir dir;
  const std::string lzw = dir.file("lzw.tif"), jpeg = dir.file("jpeg.tif");
  write_two_lzw_dialects(lzw, {.width = 100, .height = 328, .rows_per_strip = 1});
  write_jpeg_without_some_tables(
      jpeg, {.width = 64, .height = 328, .compression = COMPRESSION_JPEG, .rows_per_strip = 8});
  for (const std::string& path : {lzw, jpeg}) {
    const Reading plain = read_upwards(path, 1, 328);
    for (int run = 0; run < 20; ++run) ASSERT_TRUE(read_upwards(path, 3, 328) == plain) << path;
  }
}

TEST(TiffDecoding, AFileWrittenAnewIsNotDecodedIntoBuffersOfTheOldOne) {
  const TempDir dir;
  const std::string path = dir.file("a.tif");
  const auto write = [&](std::uint32_t tile) {
    write_tiff(path, {.width = 1024,
                      .height = 512,
                      .compression = COMPRESSION_NONE,
                      .tile_width = tile,
                      .tile_length = tile});
  };
  write(16);
  TiffReader reader;
  reader.open(path);
  write(512);
  const ComposeThreads setting(3);
  EXPECT_EQ(reader.read_rows(8, 40).size(), std::size_t{1024} * 40);
}

TEST(TiffDecoding, SeveralDamagedPiecesFailAsInOrder) {
  const TempDir dir;
  const std::string path = dir.file("a.tif");
  for (const std::uint32_t tile : {0u, 16u}) {
    const TiffFile file{.samples = 4,
                        .photometric = PHOTOMETRIC_SEPARATED,
                        .width = 90,
                        .height = 96,
                        .compression = COMPRESSION_ADOBE_DEFLATE,
                        .predictor = PREDICTOR_HORIZONTAL,
                        .rows_per_strip = 4,
                        .tile_width = tile,
                        .tile_length = tile};
    write_tiff(path, file);
    for (const std::uint32_t piece : {14u, 15u, 17u}) damage_piece(path, piece);
    const Reading plain = read_upwards(path, 1, file.height);
    EXPECT_NE(plain.error.find("error reading"), std::string::npos);
    for (const int threads : {2, 5})
      for (int run = 0; run < 10; ++run) {
        const Reading reading = read_upwards(path, threads, file.height);
        ASSERT_EQ(reading.error, plain.error);
        ASSERT_EQ(reading.log, plain.log);
        ASSERT_TRUE(reading.bands == plain.bands);
      }
  }
}

}  // namespace
}  // namespace nvo::test
