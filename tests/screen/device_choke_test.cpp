#include "screen/choke/device_choke.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "screen/choke/choke_context.h"
#include "screen/choke/choke_offsets.h"
#include "screen/choke/coverage_planes.h"
#include "screen/choke/sheet_choke.h"
#include "screen/device_grid.h"
#include "screen/kernels/instruction_set.h"
#include "screen/plain_coverage.h"
#include "screen/rip_engine.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ChokeOffsets, AreTheOctileDiscFromNearToFar) {
  const auto displacement = [](const ChokeOffset& o) { return std::pair(o.dx, o.dy); };
  // 720 x 1800: steps of 5 and 2 in units of 1/3600 inch, sqrt(29) = 5.385 diagonally.
  std::vector<std::pair<int, int>> listed;
  for (const ChokeOffset& o : choke_offsets(720, 1800, 6.0f / 3600.0f)) listed.push_back(displacement(o));
  const std::vector<std::pair<int, int>> expected = {{0, 0},  {0, -1}, {0, 1},   {0, -2}, {0, 2},
                                                     {-1, 0}, {1, 0},  {-1, -1}, {1, -1}, {-1, 1},
                                                     {1, 1},  {0, -3}, {0, 3}};
  EXPECT_EQ(listed, expected);
  // The radius itself is inside though f32 rounds it; coinciding distances share a group by another way round
  // too: at 720 x 540 a diagonal step is 5, straight ones are 3 and 4 units of 1/2160 inch.
  const auto oblong = choke_offsets(720, 540, 15.0f / 2160.0f);
  const auto group_of = [&](int dx, int dy) {
    return std::ranges::find(oblong, std::pair(dx, dy), displacement)->group;
  };
  EXPECT_EQ(group_of(3, 3), group_of(-5, 0));
  EXPECT_EQ(group_of(1, -2), group_of(3, 0));
  EXPECT_NE(group_of(0, 1), group_of(1, 0));
}

TEST(CoveragePlanes, EqualThePlainDefinition) {
  constexpr std::uint32_t kCount = 400'000;
  std::mt19937 random(7);
  std::vector<std::uint8_t> planes[4], coverage(kCount), light(kCount);
  for (auto& plane : planes)
    for (std::size_t i = 0; i < kCount; ++i)
      plane.push_back(static_cast<std::uint8_t>(i < 256 ? i : random() >> (random() % 8)));
  std::fill_n(planes[3].begin(), 256, std::uint8_t{0});  // pure grays
  const auto view = [&](std::size_t i) { return PlaneView(planes[i].data(), kCount, 1); };
  const ColourPlanes inks{view(0), view(1), view(2), view(3)};

  // Thresholds of every pixel's own lightness put each decision on the edge.
  std::vector<float> thresholds = {0, 1, 7.9995f, 7.9996f, 8, 8.0001f, 50, 85, 99.9999f, 100};
  for (int i = 0; i < 256; i += 15) thresholds.push_back(printed_lightness(static_cast<float>(i) / 255.0f));
  colour_coverage(inks, 0, coverage.data());
  for (const float threshold : thresholds) {
    LightProtection(threshold).protect(inks, 0, light.data());
    for (std::size_t i = 0; i < kCount; ++i) {
      const std::uint8_t ink[4] = {planes[0][i], planes[1][i], planes[2][i], planes[3][i]};
      ASSERT_EQ(coverage[i], test::plain_coverage(ink));
      ASSERT_EQ(light[i], test::plain_light(ink, threshold)) << threshold << " at " << i;
    }
  }
}

/// The white choke on the device grid as it is defined, a byte a dot and one displacement after the other:
/// the reference for the fast version.
struct PlainChoke {
  using Mask = std::vector<std::uint8_t>;
  using Offsets = std::vector<ChokeOffset>;
  static constexpr std::uint32_t kNoSource = 0xFFFFFFFF;

  std::uint32_t width = 0, height = 0, min_width_dots = 0;
  float radius_in = 0.0f, lightness = 0.0f;
  bool adaptive = false, protect_light = false;
  Mask colour_core, exempt, grown, support, keep, light;
  std::vector<std::uint32_t> source_index;  ///< of the dot whose colour a dot takes

  PlainChoke(const DeviceChokeInput& in, const DeviceChokeParams& params) {
    const DeviceScale scale(params.src_dpi, params.x_dpi, params.y_dpi);
    const std::uint32_t dev_h = device_extent(in.total_src_rows, scale.y);
    const DeviceRows rows = device_rows_of_strip(in.strip_src_y, in.coverage.height(), scale.y, dev_h);
    width = device_extent(in.coverage.width(), scale.x);
    height = rows.end - rows.first;
    if (height == 0) return;
    radius_in = std::max(params.choke.white_choke_amount_px_at_300dpi, 0.0f) / 300.0f;
    adaptive = params.choke.is_adaptive() && !in.support_plane.null();
    min_width_dots = adaptive ? std::max(params.choke.white_choke_adaptive_min_width_dots, 1u) : 0;
    protect_light = adaptive && params.choke.white_choke_adaptive_protect_light_enabled;
    if (protect_light) lightness = params.choke.white_choke_adaptive_lightness_threshold;
    sample(in, rows.first, dev_h);
    keep = support;
    if (radius_in == 0.0f) return;
    const Offsets disc = choke_offsets(params.x_dpi, params.y_dpi, radius_in);
    grow(disc, adaptive ? choke_white(disc) : Mask(source_index.size(), 1));
  }

  /// The plain form of a context.
  explicit PlainChoke(const ChokeContext& context)
      : width(context.width),
        height(context.height),
        min_width_dots(context.min_width_dots),
        radius_in(context.radius_in),
        lightness(context.lightness_threshold),
        adaptive(context.adaptive),
        protect_light(context.protect_light),
        exempt(std::size_t{width} * height),
        source_index(exempt.size(), kNoSource) {
    const auto unpack = [&](const BitPlane& plane, Mask& mask) {
      if (!plane.empty()) mask.resize(source_index.size());
      for (std::size_t i = 0; i < mask.size() && !plane.empty(); ++i)
        mask[i] = plane.test(i % width, i / width);
    };
    unpack(context.colour_core, colour_core);
    unpack(context.exempt, exempt);
    unpack(context.grown, grown);
    unpack(context.support, support);
    unpack(context.keep, keep);
    unpack(context.light, light);
    for (std::uint32_t i = 0; i < source_index.size(); ++i)
      if (colour_core[i] && !exempt[i]) source_index[i] = i;
    for (std::size_t y = 0; y < height; ++y)
      for (const RingDot& dot : context.ring_of_row(y))
        source_index[y * width + dot.x] = dot.source_y * width + dot.source_x;
  }

  bool operator==(const PlainChoke&) const = default;

  /// Has ring dots take their colour from the uppermost row that has the same one: device rows that lie in
  /// one source row are all alike.
  PlainChoke with_uppermost_sources(const DeviceChokeInput& in, const DeviceChokeParams& params) && {
    const std::uint64_t first =
        device_rows_of_strip(in.strip_src_y, in.coverage.height(),
                             DeviceScale(params.src_dpi, params.x_dpi, params.y_dpi).y, 0xFFFFFFFF)
            .first;
    const std::uint64_t top = in.strip_src_y, bottom = top + in.coverage.height() - 1;
    std::vector<std::uint32_t> uppermost;
    std::uint64_t row_before = 0;
    for (std::uint64_t y = first; y < first + height; ++y) {
      const std::uint64_t begin = std::max(y * params.src_dpi / params.y_dpi, top);
      const std::uint64_t last = std::min(((y + 1) * params.src_dpi - 1) / params.y_dpi, bottom);
      const bool repeats = !uppermost.empty() && begin == last && row_before == begin + 1;
      uppermost.push_back(repeats ? uppermost.back() : static_cast<std::uint32_t>(uppermost.size()));
      row_before = begin == last ? begin + 1 : 0;
    }
    for (std::uint32_t i = 0; i < source_index.size(); ++i)
      if (std::uint32_t& source = source_index[i]; source != i && source != kNoSource)
        source = uppermost[source / width] * width + source % width;
    return std::move(*this);
  }

 private:
  std::size_t index(std::int64_t x, std::int64_t y) const { return static_cast<std::size_t>(y * width + x); }
  bool inside(std::int64_t x, std::int64_t y) const { return x >= 0 && y >= 0 && x < width && y < height; }
  bool set(const Mask& mask, std::int64_t x, std::int64_t y) const {
    return inside(x, y) && mask[index(x, y)] != 0;
  }

  void sample(const DeviceChokeInput& in, std::uint32_t first, std::uint32_t dev_h) {
    const std::size_t dots = std::size_t{width} * height;
    for (Mask* mask : {&colour_core, &exempt, &grown}) mask->resize(dots);
    if (adaptive) support.resize(dots);
    if (protect_light) light.resize(dots);
    source_index.assign(dots, kNoSource);
    for (std::uint32_t i = 0; i < dots; ++i) {
      const std::uint32_t row = std::clamp(nearest_source_index(first + i / width, dev_h, in.total_src_rows),
                                           in.strip_src_y, in.strip_src_y + in.coverage.height() - 1);
      const auto at = [&, x = nearest_source_index(i % width, width, in.coverage.width())](
                          const PlaneView& plane) { return plane.at(x, row - in.strip_src_y); };
      exempt[i] = !in.exempt_mask.null() && at(in.exempt_mask) != 0;
      colour_core[i] = grown[i] = at(in.coverage) >= 3;
      if (adaptive) support[i] = exempt[i] || at(in.support_plane) != 0;
      if (protect_light)
        light[i] =
            !in.light_mask.null() ? at(in.light_mask) != 0 : at(in.support_plane) != 0 && !colour_core[i];
      if (colour_core[i] && !exempt[i]) source_index[i] = i;
    }
  }

  /// Dots for which all displaced dots are set, or any of them.
  Mask morph(const Mask& mask, const Offsets& offsets, bool all) const {
    Mask out(mask.size());
    for (std::size_t i = 0; i < out.size(); ++i) {
      const auto x = static_cast<std::int64_t>(i % width), y = static_cast<std::int64_t>(i / width);
      const auto is_set = [&](const ChokeOffset& o) { return set(mask, x + o.dx, y + o.dy); };
      out[i] = all ? std::ranges::all_of(offsets, is_set) : std::ranges::any_of(offsets, is_set);
    }
    return out;
  }

  /// Whether the support is no wider than the minimum width here, across or along.
  bool narrow(std::int64_t x, std::int64_t y) const {
    const auto run_fits = [&](std::int64_t dx, std::int64_t dy) {
      std::int64_t run = 1;
      for (const int sign : {-1, 1})
        for (std::int64_t s = sign; run <= min_width_dots && set(support, x + s * dx, y + s * dy); s += sign)
          ++run;
      return run <= min_width_dots;
    };
    return run_fits(1, 0) || run_fits(0, 1);
  }

  /// Fills `keep`; returns where colour may grow, which is about the thin white.
  Mask choke_white(const Offsets& disc) {
    // A square that reaches past the plane from every dot may as well reach just so far.
    const auto half = static_cast<std::int32_t>(std::min(min_width_dots / 2, std::max(width, height)));
    Offsets square;
    for (std::int32_t dy = -half; dy <= half; ++dy)
      for (std::int32_t dx = -half; dx <= half; ++dx) square.push_back({dx, dy, 0.0, 0});
    const Mask eroded = morph(support, disc, true);
    const Mask restored = morph(morph(morph(eroded, square, true), square, false), disc, false);
    Mask thin(support.size());
    for (std::size_t i = 0; i < support.size(); ++i) {
      const bool is_protected = support[i] && protect_light && light[i];
      const bool is_core = eroded[i] && restored[i];
      const bool is_narrow =
          support[i] && !is_protected && !restored[i] &&
          narrow(static_cast<std::int64_t>(i % width), static_cast<std::int64_t>(i / width));
      keep[i] = exempt[i] || is_protected || is_core || is_narrow;
      thin[i] = is_narrow && !exempt[i];
    }
    return morph(thin, disc, false);
  }

  /// A source that a dot without colour lies next to.
  bool is_seed(std::size_t i) const {
    const auto at_x = static_cast<std::int64_t>(i % width), at_y = static_cast<std::int64_t>(i / width);
    for (std::int64_t y = at_y - 1; y <= at_y + 1; ++y)
      for (std::int64_t x = at_x - 1; x <= at_x + 1; ++x)
        if (source_index[i] == i && inside(x, y) && !set(colour_core, x, y)) return true;
    return false;
  }

  /// Group after group of displacements every seed claims what nobody has claimed before it.
  void grow(const Offsets& disc, const Mask& halo) {
    std::vector<std::uint32_t> seeds;
    for (std::uint32_t i = 0; i < source_index.size(); ++i)
      if (is_seed(i)) seeds.push_back(i);
    for (auto from = disc.begin(), to = from; from != disc.end(); from = to) {
      while (to != disc.end() && to->group == from->group) ++to;
      for (const std::uint32_t seed : seeds)
        for (auto o = from; o != to; ++o) {
          const std::int64_t x = std::int64_t{seed % width} + o->dx, y = std::int64_t{seed / width} + o->dy;
          const std::size_t t = inside(x, y) ? index(x, y) : seed;
          if (colour_core[t] || exempt[t] || !halo[t] || source_index[t] != kNoSource) continue;
          source_index[t] = seed;
          grown[t] = 1;
        }
    }
  }
};

struct Source {
  std::uint32_t width, rows;
  Bytes coverage, white, exempt, light;
  Source(std::uint32_t w, std::uint32_t h) : width(w), rows(h) {
    for (Bytes* plane : {&coverage, &white, &exempt, &light}) plane->assign(std::size_t{w} * h, 0);
  }
  /// All of it, with each of its planes.
  DeviceChokeInput input() const {
    const auto view = [&](const Bytes& plane) { return PlaneView(plane.data(), width, rows); };
    return {view(coverage), view(exempt), view(white), view(light), 0, rows};
  }
};

/// Discs with soft edges, lines of one to three pixels and speckle, so that wide, thin and tiny features
/// meet.
Source make_art(std::uint32_t width, std::uint32_t rows, std::uint32_t seed) {
  Source art(width, rows);
  std::mt19937 random(seed);
  const auto below = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random()) % n; };
  const auto ink = [&](std::uint32_t x, std::uint32_t y, std::uint8_t value) {
    const std::size_t i = std::size_t{y} * width + x;
    art.coverage[i] = value;
    art.white[i] = below(12) == 0 ? 0 : value;
    art.light[i] = x > width / 2 && below(3) != 0 ? 255 : 0;
    art.exempt[i] = (x < width / 4 && y > rows / 2) || below(8) == 0 ? 255 : 0;
  };
  for (int disc = 0; disc < 4; ++disc) {
    const double cx = below(width), cy = below(rows), radius = 1 + below(width / 3 + 1);
    for (std::uint32_t y = 0; y < rows; ++y)
      for (std::uint32_t x = 0; x < width; ++x) {
        const double depth = radius - std::hypot(x - cx, y - cy);
        if (depth > 0) ink(x, y, static_cast<std::uint8_t>(std::min(depth * 2.0, 255.0)));
      }
  }
  for (std::uint32_t line = 0; line < 4; ++line) {
    const std::uint32_t at = below(std::min(width, rows)), thick = 1 + line % 3;
    for (std::uint32_t k = at; k < at + thick; ++k) {
      for (std::uint32_t y = 0; y < rows && k < width && line % 2 == 0; ++y) ink(k, y, 200);
      for (std::uint32_t x = 0; x < width && k < rows && line % 2 == 1; ++x) ink(x, k, 200);
    }
  }
  for (std::uint32_t dot = 0; dot < width * rows / 40; ++dot)
    ink(below(width), below(rows), static_cast<std::uint8_t>(below(6)));
  return art;
}

DeviceChoke choke_of(float amount, bool adaptive = false, std::uint32_t min_width = 3) {
  return {true, amount, WhiteChokeStrategy::production,
          adaptive ? DeviceChokeAlgorithm::adaptive : DeviceChokeAlgorithm::production, min_width};
}

/// The choke of a strip takes the same dots from the same colours as its definition.
void expect_reference(const ChokeContext& context, const DeviceChokeInput& input,
                      const DeviceChokeParams& params) {
  EXPECT_TRUE(PlainChoke(context).with_uppermost_sources(input, params) ==
              PlainChoke(input, params).with_uppermost_sources(input, params));
}

/// Outline all over: noise of any density, dots of any pitch and size, checkerboards, lines.
Source make_dense_art(std::uint32_t width, std::uint32_t rows, std::uint32_t seed) {
  Source art(width, rows);
  std::mt19937 random(seed);
  const std::uint32_t pitch_x = 2 + seed % 7, pitch_y = 2 + seed / 3 % 7, size = 1 + seed % 2;
  for (std::uint32_t i = 0; i < art.coverage.size(); ++i) {
    const std::uint32_t x = i % width, y = i / width;
    const bool kinds[] = {random() % 8 < 1 + seed / 5 % 7, x % pitch_x < size && y % pitch_y < size,
                          ((x ^ y) & 1) != 0, x % pitch_x == 0, y % pitch_y == 0};
    art.coverage[i] = art.white[i] = kinds[seed % 5] ? 255 : 0;
    art.light[i] = random() % 9 == 0 ? 255 : 0;
    art.exempt[i] = random() % 30 == 0 ? 255 : 0;
  }
  return art;
}

TEST(DeviceChoke, EqualsTheReference) {
  constexpr DeviceChokeParams kModes[] = {
      {300, 720, 1800}, {300, 360, 3600}, {300, 720, 900},  {300, 360, 540}, {300, 720, 720},
      {300, 360, 1200}, {300, 720, 540},  {600, 720, 1800}, {600, 720, 900}, {600, 360, 360}};
  const float amounts[] = {0.1f, 1.5f, 2.5f, 0.7f, 1.0f, 2.0f};
  const std::uint32_t min_widths[] = {3, 0, 16, 2, 7}, thread_counts[] = {1, 2, 3, 5};
  ChokeContext context;
  for (std::uint32_t round = 0; round < 48 * std::size(kModes); ++round) {
    const std::uint32_t variant = round % 48, total = 44, rows = variant % 3 == 0 ? total : 23;
    const Source art = (round % 7 < 3 ? make_dense_art : make_art)(29 + round * 7 % 40, rows, round);
    const auto sets = runnable_instruction_sets();
    const ForcedInstructionSet forced(*sets[round % sets.size()]);
    SCOPED_TRACE(round);
    DeviceChokeInput input = art.input();
    if (variant % 2 == 0) input.exempt_mask = {};
    if (variant % 4 == 3) input.support_plane = {};
    if (variant / 2 % 2 == 0) input.light_mask = {};
    input.strip_src_y = variant % 3 * ((total - rows) / 2);  // top, middle or bottom of the plane
    input.total_src_rows = total;
    DeviceChokeParams params = kModes[round / 48];
    params.choke = choke_of(amounts[round % 6], variant % 8 < 6, min_widths[round % 5]);
    params.choke.white_choke_adaptive_protect_light_enabled = variant % 5 != 0;
    params.choke.white_choke_adaptive_lightness_threshold = static_cast<float>(variant);
    params.threads = thread_counts[round % 4];
    context = prepare_device_choke(input, params, std::move(context));  // in the last one's memory
    expect_reference(context, input, params);
  }
}

TEST(DeviceChoke, HoldsAtOddSizesAndSettings) {
  // Widths about the word size, a reach beyond the plane and beyond a word, runs longer than a word, a
  // minimum width beyond any run, more than one source pixel a dot.
  const struct {
    std::uint32_t width, rows;
    DeviceChokeParams params;
  } cases[] = {{1, 1, {300, 720, 1800, choke_of(1.5f)}},
               {64, 5, {300, 300, 300, choke_of(1.0f)}},
               {63, 9, {300, 300, 600, choke_of(1.0f, false, 1)}},
               {65, 9, {300, 300, 600, choke_of(2.0f, false, 1)}},
               {128, 2, {300, 300, 300, choke_of(70.0f)}},
               {70, 12, {72, 300, 360, choke_of(36.0f)}},
               {200, 30, {600, 300, 150, choke_of(1.5f)}},
               {20, 20, {300, 300, 600, choke_of(1.5f, false, 0xFFFFFFFF)}},
               {90, 20, {300, 720, 1800, choke_of(2.5f, false, 40)}},
               {150, 40, {720, 300, 300, choke_of(0.0f)}}};
  for (auto [width, rows, params] : cases) {
    const Source art = make_art(width, rows, width);
    DeviceChokeInput input = art.input();
    input.light_mask = {};
    params.threads = 2;
    for (const bool adaptive : {false, true}) {
      params.choke = choke_of(params.choke.white_choke_amount_px_at_300dpi, adaptive,
                              params.choke.white_choke_adaptive_min_width_dots);
      SCOPED_TRACE(::testing::Message() << width << " x " << rows << (adaptive ? " adaptive" : ""));
      expect_reference(prepare_device_choke(input, params), input, params);
    }
  }
}

TEST(DeviceChoke, HasNothingToGrowWithoutRowsOutlineOrCoverage) {
  Source art(9, 6);
  DeviceChokeInput input = art.input();
  const DeviceChokeParams usual{300, 720, 300, choke_of(2.0f)};
  for (const std::uint8_t coverage : {std::uint8_t{0}, std::uint8_t{3}}) {
    std::ranges::fill(art.coverage, coverage);
    expect_reference(prepare_device_choke(input, usual), input, usual);
  }
  input.total_src_rows = 40;
  input.strip_src_y = 1;  // no device row belongs to this one of ten
  input.coverage = PlaneView(art.coverage.data(), 9, 1);
  const ChokeContext between = prepare_device_choke(input, {3000, 720, 300, choke_of(2.0f)});
  EXPECT_TRUE(between.width > 0 && between.height == 0 && between.colour_core.empty());
  input.coverage = {};
  EXPECT_EQ(prepare_device_choke(input, usual).width, 0u);
}

// What a run asks: from composed planes to the masks, by the plan's settings.
TEST(SheetChoke, PreparesTheStripAsComposed) {
  const test::LogCapture quiet(LogLevel::error);
  const test::TempDir masks;
  const Source art = make_art(60, 23, 5);
  Bytes black(art.coverage.size()), coverage, light;
  for (std::size_t i = 0; i < black.size(); ++i) {
    black[i] = static_cast<std::uint8_t>(art.light[i] != 0 ? 0 : art.coverage[i] / 2);
    const std::uint8_t inks[] = {art.coverage[i], 0, art.coverage[i], black[i]};
    coverage.push_back(test::plain_coverage(inks));
    light.push_back(test::plain_light(inks, 70));
  }
  const Bytes none(black.size());
  const auto view = [&](const Bytes& plane) { return PlaneView(plane.data(), art.width, art.rows); };
  for (const bool adaptive : {true, false}) {
    for (const bool protect : {true, false}) {
      RipJobOptions options;
      options.white_choke_algorithm = adaptive ? WhiteChokeSetting::adaptive : WhiteChokeSetting::production;
      options.white_choke_adaptive_protect_light_enabled = protect;
      options.white_choke_adaptive_lightness_threshold = 70;
      const ChokePlan plan = plan_choke(options);
      SheetChoke choke(plan);
      RipEngineParams params;
      params.y_dpi = 900;
      params.n_channels = 5;
      params.tile_w = params.tile_h = 16;
      params.n_masks = 5;
      params.cache_dir = masks.path().string();
      hand_over<DeviceChoke>(plan, params);
      const RipEngine engine(params);
      ChokeTimes times;
      choke.prepare(engine,
                    {9,
                     44,
                     {view(art.coverage), view(none), view(art.coverage), view(black), view(art.white)},
                     view(art.exempt)},
                    times);
      const DeviceChokeInput input{view(coverage),
                                   view(art.exempt),
                                   adaptive ? view(art.white) : PlaneView(),
                                   adaptive && protect ? view(light) : PlaneView(),
                                   9,
                                   44};
      DeviceChoke settings = choke_of(1.5f, adaptive);
      settings.white_choke_adaptive_protect_light_enabled = protect;
      settings.white_choke_adaptive_lightness_threshold = 70;
      expect_reference(*choke.context(), input, {300, 720, 900, settings});
    }
  }
}

}  // namespace
}  // namespace nvo
