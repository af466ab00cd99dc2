// Decoding in one thread and in several, with libtiff's own way of undoing differences as the plain form.
#include <algorithm>
#include <fstream>
#include <string_view>

#include "image/image_test.h"
#include "image/tiff_reader.h"
#include "support/scoped_variable.h"
#include "support/tiff_file.h"

namespace nvo::test {
namespace {

/// One result of reading a file: the pixels of some bands, upwards with an overlap, or an error; and the log
/// without the lines on buffers, which threads have of their own.
struct Reading {
  std::vector<Bytes> bands;
  std::string error;
  std::vector<std::string> log;

  bool operator==(const Reading&) const = default;
};

std::vector<Bytes> bands_upwards(std::uint32_t height,
                                 const std::function<Bytes(std::uint32_t y, std::uint32_t rows)>& band) {
  std::vector<Bytes> bands;
  for (std::uint32_t end = height; end > 0; end = end > 40 ? end - 35 : 0)
    bands.push_back(band(end - std::min(end, 40u), std::min(end, 40u)));
  return bands;
}

class TiffDecoding : public ImageTest {
 protected:
  const std::string path_ = dir_.file("a.tif");

  /// Opens the file for a reader that divides its work among so many threads.
  void with_reader(int threads, const std::function<void(TiffReader&)>& use) const {
    const ScopedVariable mode("NVO_RIP_PARALLEL_COMPOSE_ITEMS", threads > 1 ? "1" : "0");
    const ScopedVariable count("NVO_RIP_COMPOSE_THREADS", std::to_string(threads).c_str());
    TiffReader reader;
    reader.open(path_);
    use(reader);
  }

  Reading read_upwards(int threads, std::uint32_t height) {
    Reading reading;
    log_.take();
    reading.error = failure_of([&] {
      with_reader(threads, [&](TiffReader& reader) {
        bands_upwards(height, [&](std::uint32_t y, std::uint32_t rows) {
          return reading.bands.emplace_back(reader.read_rows(y, rows));
        });
      });
    });
    reading.log = log_.take();
    std::erase_if(reading.log, [](const auto& line) { return line.find(" buffer of ") != line.npos; });
    return reading;
  }

  /// What one thread reads; expects the same of several, so many times each.
  Reading expect_same(std::uint32_t height, std::initializer_list<int> thread_counts, int runs) {
    const Reading plain = read_upwards(1, height);
    for (const int threads : thread_counts)
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

TEST_F(TiffDecoding, GivesTheSamplesOfTheFileWithAnyPredictorAndThreads) {
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
        ASSERT_EQ(plain.bands,
                  bands_upwards(file.height, [&](auto y, auto rows) { return file.band(y, rows); }));
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
TEST_F(TiffDecoding, TilesOfARowAbove64MiBAreDecodedSideBySide) {
  TiffFile file{.samples = 8, .photometric = PHOTOMETRIC_SEPARATED, .width = 8300, .height = 1024};
  file.compression = COMPRESSION_PACKBITS;
  file.tile_width = 128, file.tile_length = 1024;
  file.pixel = [&](std::uint32_t x, std::uint32_t, std::uint8_t* samples) {
    std::fill_n(samples, file.samples, static_cast<std::uint8_t>(x / file.tile_width + 1));
  };
  write_raw(file, (file.width + file.tile_width - 1) / file.tile_width, [&](std::uint32_t tile) {
    return runs_of(file.tile_width * file.tile_length * file.samples, static_cast<char>(tile + 1));
  });
  const Bytes expected = file.band(500, 60);
  for (const int threads : {1, 2, 3})
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

TEST_F(TiffDecoding, PiecesThatLeanOnOthersAreDecodedAsInOrder) {
  // Which of two dialects a decoder expects, it takes from the first strip that it sees, here from strip 288.
  const TiffFile lzw{.width = 100, .height = 328, .rows_per_strip = 1};
  write_raw(lzw, lzw.height, [&](std::uint32_t y) { return lzw_strip(y, lzw.width, y % 3 == 0); });
  EXPECT_EQ(expect_same(lzw.height, {3}, 20).error, "TiffReader: error reading strip 289");

  const TiffFile jpeg{.width = 64, .height = 328, .compression = COMPRESSION_JPEG, .rows_per_strip = 8};
  write_jpeg_without_some_tables(path_, jpeg);
  EXPECT_EQ(expect_same(jpeg.height, {3}, 20).error, "");
}

TEST_F(TiffDecoding, AFileWrittenAnewIsNotDecodedIntoBuffersOfTheOldOne) {
  TiffFile file{.width = 1024, .height = 512, .compression = COMPRESSION_NONE, .tile_width = 16};
  file.tile_length = 16;
  write_tiff(path_, file);
  with_reader(3, [&](TiffReader& reader) {
    file.tile_width = file.tile_length = 512;
    write_tiff(path_, file);
    EXPECT_EQ(reader.read_rows(8, 40).size(), std::size_t{1024} * 40);
  });
}

TEST_F(TiffDecoding, SeveralDamagedPiecesFailAsInOrder) {
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

}  // namespace
}  // namespace nvo::test
