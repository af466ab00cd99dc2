#include <algorithm>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "compose/item_raster.h"
#include "compose/white_underbase.h"
#include "image/image_loader.h"

namespace {

using nvo::ChannelRole;

constexpr std::uint32_t kWidth = 3000;  // 10 inches at 300 dpi
constexpr std::uint32_t kRows = 1024;

/// Artwork in the middle of a blank sheet: a quarter transparent, a rim of graded alpha, the rest opaque.
std::uint8_t coverage_at(std::uint32_t x, std::uint32_t y, std::uint32_t width) {
  const std::uint32_t left = width / 8 + y % 40;
  const std::uint32_t right = width - width / 8;
  if (x < left || x >= right) return 0;
  return x - left < 16 ? static_cast<std::uint8_t>(16 * (x - left) + 1) : 255;
}

nvo::LoadedImage make_image(std::uint32_t width, std::uint32_t height,
                            const std::vector<ChannelRole>& roles) {
  nvo::LoadedImage image;
  image.width = width, image.height = height;
  image.channel_count = static_cast<std::uint16_t>(roles.size());
  for (std::size_t i = 0; i < roles.size(); ++i)
    image.channels.push_back({roles[i], "", static_cast<std::uint8_t>(i)});
  image.is_cmyk = image.role_index(ChannelRole::cyan) >= 0;
  image.is_rgb = !image.is_cmyk;
  image.has_alpha = image.role_index(ChannelRole::alpha) >= 0;
  for (std::uint32_t y = 0; y < height; ++y)
    for (std::uint32_t x = 0; x < width; ++x)
      for (std::size_t i = 0; i < roles.size(); ++i)
        image.pixels.push_back(roles[i] == ChannelRole::alpha || roles[i] == ChannelRole::white
                                   ? coverage_at(x, y, width)
                                   : static_cast<std::uint8_t>((x * (i + 3) + y * 5) >> 2));
  image.white_coverage = nvo::build_white_coverage(image);
  return image;
}

const std::vector<ChannelRole> kCmyk = {ChannelRole::cyan, ChannelRole::magenta, ChannelRole::yellow,
                                        ChannelRole::black};
const std::vector<ChannelRole> kCmykWhite = {ChannelRole::cyan, ChannelRole::magenta, ChannelRole::yellow,
                                             ChannelRole::black, ChannelRole::white};
const std::vector<ChannelRole> kRgba = {ChannelRole::none, ChannelRole::none, ChannelRole::none,
                                        ChannelRole::alpha};

/// A strip from a band of source rows, or from the whole image where `banded` is false. Rates count all
/// destination pixels, blank ones too.
void compose(benchmark::State& state, const std::vector<ChannelRole>& roles, std::uint32_t source_width,
             std::uint32_t source_height, bool rotated, bool banded) {
  const nvo::LoadedImage image = make_image(source_width, source_height, roles);
  const nvo::ItemPlacement place{0, 0, kWidth, kRows};
  nvo::StripBuffer strip;
  strip.width = kWidth, strip.height = kRows;
  strip.explicit_white.resize(std::size_t{kWidth} * kRows);
  strip.planes.fill(strip.explicit_white);
  const nvo::ItemGrid grid = nvo::make_item_grid(image, rotated, place);
  const nvo::ItemTraits traits = nvo::make_item_traits(image, grid, {}, false);
  const nvo::IndexRange columns = nvo::columns_on_strip(place, strip);
  const nvo::IndexRange rows = nvo::rows_on_strip(place, strip);
  for (auto _ : state) {
    const nvo::ColumnMap map(columns.begin, columns.end, kWidth, grid.source_width, traits.box);
    const nvo::SourceView view = banded ? nvo::view_rows(image, image.pixels, {0, source_height}, traits)
                                        : nvo::view_image(image, rotated, traits);
    nvo::RowRasterizer rasterizer(view, traits, grid, map, {});
    rasterizer.raster_rows(rows, nvo::strip_target(strip, place, columns, rows, traits.has_white));
    benchmark::ClobberMemory();
  }
  state.counters["pixels"] =
      benchmark::Counter(double{kWidth} * kRows, benchmark::Counter::kIsIterationInvariantRate);
}

void blit(benchmark::State& state) {
  nvo::PreparedItemRaster raster(kWidth, kRows, false);
  for (std::uint32_t y = 0; y < kRows; ++y)
    for (std::uint32_t x = 0; x < kWidth; ++x) raster.valid[y * kWidth + x] = coverage_at(x, y, kWidth) != 0;
  nvo::StripBuffer strip;
  strip.width = kWidth, strip.height = kRows;
  strip.explicit_white.resize(raster.valid.size());
  strip.planes.fill(strip.explicit_white);
  std::uint64_t written = 0;
  for (auto _ : state) {
    nvo::blit_prepared_raster(raster, {0, 0, kWidth, kRows}, strip, {0, kRows}, written);
    benchmark::ClobberMemory();
  }
  state.counters["pixels"] =
      benchmark::Counter(double{kWidth} * kRows, benchmark::Counter::kIsIterationInvariantRate);
}

void white_limit(benchmark::State& state) {
  nvo::StripBuffer strip;
  strip.width = kWidth, strip.height = kRows;
  strip.explicit_white.resize(std::size_t{kWidth} * kRows);
  strip.planes.fill(strip.explicit_white);
  for (std::size_t plane = 0; plane < 4; ++plane)
    for (std::size_t i = 0; i < strip.explicit_white.size(); ++i)
      strip.planes[plane][i] = static_cast<std::uint8_t>(i * (plane + 3) >> 2);
  nvo::WhiteUnderbaseParams params;
  params.white_ink_limit_enabled = true;
  for (auto _ : state) {
    std::fill(strip.planes[4].begin(), strip.planes[4].end(), std::uint8_t{255});
    nvo::apply_white_underbase(strip, 300, params);
    benchmark::ClobberMemory();
  }
  state.counters["pixels"] =
      benchmark::Counter(double{kWidth} * kRows, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK_CAPTURE(compose, cmyk_1to1, kCmyk, kWidth, kRows, false, true);
BENCHMARK_CAPTURE(compose, cmyk_white_1to1, kCmykWhite, kWidth, kRows, false, true);
BENCHMARK_CAPTURE(compose, rgba_1to1, kRgba, kWidth, kRows, false, false);
BENCHMARK_CAPTURE(compose, rgba_240_to_300, kRgba, kWidth * 4 / 5, kRows * 4 / 5, false, false);
BENCHMARK_CAPTURE(compose, cmyk_white_240_to_300, kCmykWhite, kWidth * 4 / 5, kRows * 4 / 5, false, true);
BENCHMARK_CAPTURE(compose, cmyk_white_600_to_300, kCmykWhite, kWidth * 2, kRows * 2, false, true);
BENCHMARK_CAPTURE(compose, rgba_turned_1to1, kRgba, kRows, kWidth, true, false);
BENCHMARK(blit);
BENCHMARK(white_limit);

}  // namespace
