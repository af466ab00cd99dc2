// From an image file to its rows, in one thread; items are pixels. Files are cached by the system after the
// first read.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/log.h"
#include "image/decode/raster_decoder.h"
#include "image/image_loader.h"
#include "image/raster_files.h"
#include "image/raster_source.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

constexpr std::uint32_t kWidth = 3000, kHeight = 512;  // 10 inches at 300 dpi
constexpr std::uint32_t kBandRows = 64;

/// Slopes with some grain, and bare film at the left.
std::uint8_t sample(std::uint32_t x, std::uint32_t y, std::uint32_t channel) {
  if (x < kWidth / 4 + y % 40) return 0;
  return static_cast<std::uint8_t>((x * (channel + 1) + y * 3) / 16 + (x * 2654435761u ^ y * 40503u) % 4);
}

test::Rgba rgba_sample(std::uint32_t x, std::uint32_t y) {
  return {sample(x, y, 0), sample(x, y, 1), sample(x, y, 2), sample(x, y, 3)};
}

/// The same art in every format.
class Files {
 public:
  Files() {
    Logger::instance().set_level(LogLevel::error);
    test::TiffFile tiff = test::cmykw_tiff(kWidth, kHeight, [](auto x, auto y, std::uint8_t* ink) {
      for (std::uint32_t channel = 0; channel < 5; ++channel) ink[channel] = sample(x, y, channel);
    });
    test::write_tiff(dir_.file("lzw.tif"), tiff);
    tiff.compression = COMPRESSION_ADOBE_DEFLATE;
    test::write_tiff(dir_.file("zip.tif"), tiff);
    tiff.compression = COMPRESSION_LZW;
    tiff.tile_width = tiff.tile_length = 256;
    test::write_tiff(dir_.file("tiles.tif"), tiff);

    test::PngFile png;
    png.width = kWidth, png.height = kHeight;
    png.pixel = rgba_sample;
    test::write_all(dir_.file("rgba.png"), png.bytes());
    test::JpegFile jpeg;
    jpeg.width = kWidth, jpeg.height = kHeight;
    jpeg.sample = [](auto x, auto y, int component) {
      return sample(x, y, static_cast<std::uint32_t>(component));
    };
    test::write_all(dir_.file("rgb.jpg"), jpeg.bytes());
    const auto rgba = test::rgba_image(kWidth, kHeight, rgba_sample);
    test::write_all(dir_.file("rgba.webp"), test::webp_bytes(rgba, kWidth, kHeight, true));
  }
  std::string path(const std::string& name) const { return dir_.file(name); }

 private:
  test::TempDir dir_;
};

std::string file(const std::string& name) {
  static const Files files;
  return files.path(name);
}

void count_pixels(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kWidth * kHeight);
}

void rows(benchmark::State& state, const std::string& name) {
  const std::string path = file(name);
  std::vector<std::uint8_t> band;
  std::string error;
  for (auto _ : state) {
    const auto source = make_raster_source(path);
    for (std::uint32_t y = 0; y < kHeight; y += kBandRows)
      if (!source->read_rows(y, kBandRows, band, &error)) return state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(band.data());
  }
  count_pixels(state);
}

/// Of a PNG, by either of its two ways.
void decoder_rows(benchmark::State& state, std::unique_ptr<RasterDecoder> (*open)(ByteReader)) {
  const std::string path = file("rgba.png");
  for (auto _ : state) {
    const auto decoder = open(ByteReader(path));
    std::vector<std::uint8_t> row(decoder->row_bytes());
    decoder->start();
    for (std::uint32_t y = 0; y < kHeight; ++y) decoder->read_row(row.data());
    benchmark::DoNotOptimize(row.data());
  }
  count_pixels(state);
}

void whole_image(benchmark::State& state, const std::string& name) {
  const std::string path = file(name);
  for (auto _ : state) benchmark::DoNotOptimize(load_image(path).pixels.data());
  count_pixels(state);
}

void white_coverage(benchmark::State& state, const std::string& name) {
  const LoadedImage image = load_image(file(name));
  for (auto _ : state) benchmark::DoNotOptimize(build_white_coverage(image).data());
  count_pixels(state);
}

BENCHMARK_CAPTURE(rows, tiff_lzw, "lzw.tif")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rows, tiff_zip, "zip.tif")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rows, tiff_lzw_tiles, "tiles.tif")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rows, png, "rgba.png")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decoder_rows, png_plain, open_png_decoder)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decoder_rows, png_by_libpng, open_libpng_decoder)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rows, jpeg, "rgb.jpg")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rows, webp, "rgba.webp")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(whole_image, tiff_lzw, "lzw.tif")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(white_coverage, white_channel, "lzw.tif");
BENCHMARK_CAPTURE(white_coverage, alpha, "rgba.png");

}  // namespace
}  // namespace nvo
