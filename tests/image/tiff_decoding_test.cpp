// Decoding in one thread and in several, with libtiff's own way of undoing differences as the plain form.
#include <cstdlib>
#include <string>
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
