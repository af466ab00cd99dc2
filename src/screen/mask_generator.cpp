#include "screen/mask_generator.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <deque>
#include <future>
#include <iterator>
#include <limits>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "core/log.h"
#include "core/threads/started_work.h"
#include "core/threads/thread_plan.h"

namespace nvo {
namespace {

constexpr float kKernelReach = 3.0f;  // the kernel ends at this many sigmas
constexpr std::uint64_t kMinPixels = 2, kMaxPixels = 0x7FFFFFFF;
constexpr int kPixelsPerInitialDot = 10;

/// Energy of a pixel that may not be picked. No weight that is added to it changes it.
constexpr float kClosed = std::numeric_limits<float>::infinity();

struct Pixel {
  std::ptrdiff_t x = 0, y = 0;
  bool operator==(const Pixel&) const = default;
};

// Four values at a time, in the compilers' portable vector type: additions and minima lane by lane round and
// choose as their scalar forms do, so the masks are the same on every instruction set.
using Lanes = float __attribute__((vector_size(16)));
constexpr std::ptrdiff_t kLanes = 4;
constexpr std::ptrdiff_t kLanesPerRun = 4;
constexpr std::ptrdiff_t kRun = kLanesPerRun * kLanes;  // values that the loops below take in one step

Lanes load(const float* values) {
  Lanes lanes;
  std::memcpy(&lanes, values, sizeof lanes);
  return lanes;
}

void store(float* values, Lanes lanes) {
  std::memcpy(values, &lanes, sizeof lanes);
}

/// Lowest values of runs.
class RunMinimum {
 public:
  RunMinimum() { std::fill_n(lowest_, kLanesPerRun, Lanes{kClosed, kClosed, kClosed, kClosed}); }

  void take(std::ptrdiff_t part, Lanes lanes) { lowest_[part] = lower(lowest_[part], lanes); }

  float value() const {
    const Lanes lowest = lower(lower(lowest_[0], lowest_[1]), lower(lowest_[2], lowest_[3]));
    return std::min(std::min(lowest[0], lowest[1]), std::min(lowest[2], lowest[3]));
  }

 private:
  static Lanes lower(Lanes a, Lanes b) { return b < a ? b : a; }

  Lanes lowest_[kLanesPerRun];
};

/// Lowest of `count` values, whole runs.
float lowest_of(const float* values, std::ptrdiff_t count) {
  RunMinimum minimum;
  for (std::ptrdiff_t i = 0; i < count; i += kRun)
    for (std::ptrdiff_t part = 0; part < kLanesPerRun; ++part)
      minimum.take(part, load(values + i + part * kLanes));
  return minimum.value();
}

/// Bit i tells whether value i of a run equals `value`.
unsigned equal_in_run(const float* run, float value) {
  unsigned hits = 0;
  for (int i = 0; i < kRun; ++i) hits |= static_cast<unsigned>(run[i] == value) << i;
  return hits;
}

/// Index of the first of `count` values, whole runs, that equals `value`, one of them.
std::ptrdiff_t first_equal(const float* values, std::ptrdiff_t count, float value) {
  for (std::ptrdiff_t run = 0; run < count; run += kRun)
    if (const unsigned hits = equal_in_run(values + run, value)) return run + std::countr_zero(hits);
  return count;
}

std::ptrdiff_t ceil_div(std::ptrdiff_t a, std::ptrdiff_t b) {
  return (a + b - 1) / b;
}
std::ptrdiff_t whole_runs(std::ptrdiff_t count) {
  return ceil_div(count, kRun) * kRun;
}

constexpr std::ptrdiff_t kBlockW = kRun, kBlockH = 8;

struct alignas(64) Block {
  float energy[kBlockH][kBlockW];
};

/// Gaussian weights, times `sign`, in a frame of zeros one block wide, so that whole blocks can be added to.
class Kernel {
 public:
  Kernel(float sigma, float sign)
      : radius_(std::max(static_cast<int>(std::ceil(sigma * kKernelReach)), 1)),
        pitch_(2 * radius_ + 1 + 2 * kBlockW),
        weights_(static_cast<std::size_t>(pitch_ * (2 * radius_ + 1 + 2 * kBlockH))) {
    for (int dy = -radius_; dy <= radius_; ++dy) {
      for (int dx = -radius_; dx <= radius_; ++dx) {
        const auto distance_squared = static_cast<float>(dx * dx + dy * dy);
        weights_[position(dx, dy)] = sign * std::exp(-distance_squared / ((sigma + sigma) * sigma));
      }
    }
  }

  std::ptrdiff_t radius() const { return radius_; }
  std::ptrdiff_t pitch() const { return pitch_; }
  /// The weight at an offset from the centre, at most the radius and the frame away.
  const float* at(std::ptrdiff_t dx, std::ptrdiff_t dy) const { return weights_.data() + position(dx, dy); }

 private:
  std::size_t position(std::ptrdiff_t dx, std::ptrdiff_t dy) const {
    return static_cast<std::size_t>((dy + radius_ + kBlockH) * pitch_ + dx + radius_ + kBlockW);
  }

  int radius_;
  std::ptrdiff_t pitch_;
  std::vector<float> weights_;
};

/// Adds the weights of which `weights` is the block's first pixel's; returns the block's new minimum.
float add_to_block(Block& block, const float* weights, std::ptrdiff_t pitch) {
  RunMinimum minimum;
  for (auto& row : block.energy) {
    for (std::ptrdiff_t part = 0; part < kLanesPerRun; ++part) {
      const Lanes sum = load(row + part * kLanes) + load(weights + part * kLanes);
      store(row + part * kLanes, sum);
      minimum.take(part, sum);
    }
    weights += pitch;
  }
  return minimum.value();
}

/// Energies of a toroidal tile whose pixels are open or closed, with the open pixel of lowest energy at hand.
/// The tile is cut into blocks, a row of blocks being a band; the minima of blocks and bands follow every
/// change, so that neither an addition nor a look-up visits more than a few of them.
class EnergyField {
 public:
  /// All pixels have the same energy, or are closed if it is `kClosed`.
  EnergyField(std::ptrdiff_t width, std::ptrdiff_t height, float energy)
      : width_(width),
        height_(height),
        band_length_(ceil_div(width, kBlockW)),
        band_count_(ceil_div(height, kBlockH)),
        minima_pitch_(whole_runs(band_length_)),
        blocks_(static_cast<std::size_t>(band_length_ * band_count_)),
        block_minima_(static_cast<std::size_t>(minima_pitch_ * band_count_), kClosed),
        band_minima_(static_cast<std::size_t>(whole_runs(band_count_)), kClosed) {
    for (Block& block : blocks_) std::fill_n(&block.energy[0][0], kBlockW * kBlockH, kClosed);
    for (std::ptrdiff_t y = 0; y < height; ++y)
      for (std::ptrdiff_t x = 0; x < width; ++x) (*this)[{x, y}] = energy;
    for (std::ptrdiff_t band = 0; band < band_count_; ++band)
      std::fill_n(minima_of(band), band_length_, energy);
    std::fill_n(band_minima_.begin(), band_count_, energy);
  }

  /// The energy of a pixel. A value written here counts in `lowest` once a kernel has been added there.
  float& operator[](Pixel p) {
    return block(p.x / kBlockW, p.y / kBlockH).energy[p.y % kBlockH][p.x % kBlockW];
  }

  /// Adds the kernel around a pixel, on the torus.
  void add(Pixel centre, const Kernel& kernel) {
    // A pixel below several copies of the kernel takes their weights by ascending offset from the centre,
    // rows first. The copy farthest down has the lowest, and in a row of copies the one farthest to the
    // right.
    const std::ptrdiff_t r = kernel.radius();
    for (std::ptrdiff_t y = last_copy(centre.y, r, height_); y >= -r; y -= height_)
      for (std::ptrdiff_t x = last_copy(centre.x, r, width_); x >= -r; x -= width_) add_copy({x, y}, kernel);
  }

  /// The first open pixel of lowest energy in row-major order. One must be open.
  Pixel lowest() const {
    const auto band_entries = std::ssize(band_minima_);
    const float energy = lowest_of(band_minima_.data(), band_entries);
    const std::ptrdiff_t band = first_equal(band_minima_.data(), band_entries, energy);
    const float* minima = minima_of(band);
    Pixel first{0, height_};
    for (std::ptrdiff_t run = 0; run < minima_pitch_; run += kRun) {
      for (unsigned hits = equal_in_run(minima + run, energy); hits != 0; hits &= hits - 1) {
        const Pixel p = first_in_block(run + std::countr_zero(hits), band, energy);
        if (p.y < first.y) first = p;
      }
    }
    return first;
  }

 private:
  /// Copies of the kernel lie one tile size apart; the last position whose copy reaches into the tile.
  static std::ptrdiff_t last_copy(std::ptrdiff_t centre, std::ptrdiff_t radius, std::ptrdiff_t size) {
    while (centre < radius) centre += size;
    return centre;
  }

  /// Adds one copy of the kernel where it lies over the tile; its centre may lie outside.
  void add_copy(Pixel centre, const Kernel& kernel) {
    const std::ptrdiff_t r = kernel.radius();
    const Pixel first{std::max<std::ptrdiff_t>(centre.x - r, 0) / kBlockW,
                      std::max<std::ptrdiff_t>(centre.y - r, 0) / kBlockH};
    const Pixel last{std::min(centre.x + r, width_ - 1) / kBlockW,
                     std::min(centre.y + r, height_ - 1) / kBlockH};
    for (std::ptrdiff_t band = first.y; band <= last.y; ++band) {
      float* minima = minima_of(band);
      for (std::ptrdiff_t x = first.x; x <= last.x; ++x) {
        const float* weights = kernel.at(x * kBlockW - centre.x, band * kBlockH - centre.y);
        minima[x] = add_to_block(block(x, band), weights, kernel.pitch());
      }
      band_minima_[static_cast<std::size_t>(band)] = lowest_of(minima, minima_pitch_);
    }
  }

  Pixel first_in_block(std::ptrdiff_t x, std::ptrdiff_t band, float energy) const {
    const std::ptrdiff_t i = first_equal(&block(x, band).energy[0][0], kBlockW * kBlockH, energy);
    return {x * kBlockW + i % kBlockW, band * kBlockH + i / kBlockW};
  }

  Block& block(std::ptrdiff_t x, std::ptrdiff_t band) { return blocks_.data()[band * band_length_ + x]; }
  const Block& block(std::ptrdiff_t x, std::ptrdiff_t band) const {
    return blocks_.data()[band * band_length_ + x];
  }
  float* minima_of(std::ptrdiff_t band) { return block_minima_.data() + band * minima_pitch_; }
  const float* minima_of(std::ptrdiff_t band) const { return block_minima_.data() + band * minima_pitch_; }

  std::ptrdiff_t width_, height_;
  std::ptrdiff_t band_length_, band_count_, minima_pitch_;
  std::vector<Block> blocks_;  ///< band by band; pixels beyond the tile are closed
  std::vector<float> block_minima_, band_minima_;
};

/// Dots on a tile. Each pixel is open in one of two fields: with its energy among the voids where it has no
/// dot, with its negated energy among the clusters where it has one. Negation changes no rounding, so the
/// lowest of either field is the largest void or the tightest cluster.
class DotPattern {
 public:
  DotPattern(std::ptrdiff_t width, std::ptrdiff_t height, float sigma)
      : more_(sigma, 1.0f),
        less_(sigma, -1.0f),
        voids_(width, height, 0.0f),
        clusters_(width, height, kClosed) {}

  bool has_dot(Pixel p) { return voids_[p] == kClosed; }

  void set(Pixel p) {
    clusters_[p] = -voids_[p];
    voids_[p] = kClosed;
    voids_.add(p, more_);
    clusters_.add(p, less_);
  }

  void clear(Pixel p) {
    voids_[p] = -clusters_[p];
    clusters_[p] = kClosed;
    voids_.add(p, less_);
    clusters_.add(p, more_);
  }

  Pixel largest_void() const { return voids_.lowest(); }
  Pixel tightest_cluster() const { return clusters_.lowest(); }

  /// Picks the tightest cluster and forgets its dot, as far as clusters are concerned.
  Pixel consume_cluster() { return consume(clusters_); }
  /// Picks the largest void and fills it, as far as voids are concerned.
  Pixel consume_void() { return consume(voids_); }

 private:
  Pixel consume(EnergyField& field) const {
    const Pixel p = field.lowest();
    field[p] = kClosed;
    field.add(p, more_);
    return p;
  }

  Kernel more_, less_;
  EnergyField voids_, clusters_;
};

void seed_dots(DotPattern& pattern, int count, std::ptrdiff_t tile_w, std::uint64_t pixels,
               std::uint64_t seed) {
  for (int set = 0; set < count;) {
    seed ^= seed << 13;
    seed ^= seed >> 7;
    seed ^= seed << 17;
    const auto index = static_cast<std::ptrdiff_t>(seed % pixels);
    const Pixel p{index % tile_w, index / tile_w};
    if (pattern.has_dot(p)) continue;
    pattern.set(p);
    ++set;
  }
}

/// Moves dots from clusters into voids until one would go back to where it came from.
void relax(DotPattern& pattern) {
  for (;;) {
    const Pixel from = pattern.tightest_cluster();
    pattern.clear(from);
    const Pixel to = pattern.largest_void();
    pattern.set(to);
    if (to == from) return;
  }
}

/// The rank scaled to a byte, by a 32-bit product that may wrap on tiles of more than 8 million pixels.
std::uint8_t threshold(int rank, std::uint64_t pixels) {
  const auto scaled = static_cast<std::int32_t>(static_cast<std::uint32_t>(rank) * 255u);
  return static_cast<std::uint8_t>(scaled / static_cast<std::int32_t>(pixels - 1));
}

void log_banner(const MaskParams& params) {
  log_info("=====================================");
  log_info("MaskCache: bn_cache NOT FOUND");
  log_info("Generating ", params.n_masks, " Blue Noise masks ", params.tile_w, "x", params.tile_h);
  log_info("This will take several minutes...");
  log_info("=====================================");
}

}  // namespace

std::uint64_t mask_seed(std::int32_t index) {
  const auto square = static_cast<std::uint32_t>(index) * static_cast<std::uint32_t>(index);
  const auto extended = [](std::int32_t value) { return static_cast<std::uint64_t>(std::int64_t{value}); };
  return (extended(static_cast<std::int32_t>(square)) * 0x6C62272E07BB0142ULL) ^
         (extended(index) * 0x9E3779B97F4A7C15ULL) ^ 0xDEADBEEFCAFEBABEULL;
}

void generate_mask(std::uint8_t* out, std::int32_t tile_w, std::int32_t tile_h, std::uint64_t seed,
                   float sigma) {
  // The divisor of the exponent can vanish before sigma does; the kernel would not be a number then.
  const bool has_kernel =
      std::isfinite(sigma) && sigma <= kMaxMaskSigma && sigma > 0.0f && (sigma + sigma) * sigma > 0.0f;
  if (out == nullptr || tile_w < 1 || tile_h < 1 || !has_kernel)
    throw std::invalid_argument("MaskCache: invalid V&C generation parameters");
  const auto pixels = static_cast<std::uint64_t>(tile_w) * static_cast<std::uint64_t>(tile_h);
  if (pixels < kMinPixels || pixels > kMaxPixels)
    throw std::invalid_argument("MaskCache: V&C tile size is out of supported range");

  const int initial_dots = std::max(static_cast<int>(pixels) / kPixelsPerInitialDot, 1);
  DotPattern pattern(tile_w, tile_h, sigma);
  seed_dots(pattern, initial_dots, tile_w, pixels, seed);
  relax(pattern);

  const auto rank = [&](Pixel p, int value) { out[p.y * tile_w + p.x] = threshold(value, pixels); };
  for (int i = initial_dots - 1; i >= 0; --i) rank(pattern.consume_cluster(), i);
  for (int i = initial_dots; i < static_cast<int>(pixels); ++i) rank(pattern.consume_void(), i);
}

std::vector<std::uint8_t> generate_all_masks(const MaskParams& params) {
  const auto bytes = mask_set_bytes(params);
  if (!bytes) throw std::invalid_argument("MaskCache: requested cache is too large");
  std::vector<std::uint8_t> masks(*bytes);
  const std::size_t mask_size = std::size_t{params.tile_w} * params.tile_h;

  log_banner(params);
  const auto generate = [&params, mask_size, &masks](std::uint32_t index) {
    generate_mask(masks.data() + mask_size * index, static_cast<std::int32_t>(params.tile_w),
                  static_cast<std::int32_t>(params.tile_h), mask_seed(static_cast<std::int32_t>(index)),
                  params.sigma);
  };

  const std::uint32_t workers = std::min(hardware_threads(), std::max(params.n_masks, 1u));
  std::deque<StartedWork<void>> ahead;
  std::uint32_t started = 0;
  for (std::uint32_t i = 0; i < params.n_masks; ++i) {
    log_info("Generating mask ", i + 1, "/", params.n_masks, " (sigma=", params.sigma, ")...");
    for (; started < params.n_masks && ahead.size() < workers; ++started)
      ahead.push_back(start_work([generate, started] { generate(started); }));
    ahead.front().get();
    ahead.pop_front();
    log_info("Mask ", i + 1, "/", params.n_masks, " done.");
  }
  log_info("MaskCache: all masks generated.");
  return masks;
}

}  // namespace nvo
