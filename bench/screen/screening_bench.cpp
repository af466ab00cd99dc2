// Screening in one thread, every instruction set beside the plain form; items are dots. Rows are those of a
// 10 inch wide photo with grain at 300 to 720 dpi, so that no shortcut for flat or blank rows applies.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/log.h"
#include "screen/column_taps.h"
#include "screen/kernels/drop_code.h"
#include "screen/kernels/instruction_set.h"
#include "screen/plain_rip_engine.h"
#include "screen/rip_engine.h"

namespace nvo {
namespace {

constexpr std::uint32_t kSourceWidth = 3000, kSourceRows = 256, kDeviceWidth = 7200;
/// Short enough to wait for the plain form.
constexpr std::uint32_t kPlainRows = 16;

std::vector<std::uint8_t> grainy_photo(std::uint32_t rows) {
  std::vector<std::uint8_t> plane(std::size_t{kSourceWidth} * rows);
  std::uint32_t state = 1;
  for (std::size_t i = 0; i < plane.size(); ++i) {
    state = state * 1664525u + 1013904223u;
    plane[i] = static_cast<std::uint8_t>(i / 16 % 200 + (state >> 27));
  }
  return plane;
}

/// Screened rows of the photo from stage to stage, for the kernels one by one.
struct Stages {
  ColumnTaps taps = build_column_taps(kSourceWidth, kDeviceWidth, 300.0f / 720.0f);
  std::vector<float> inks, filtered, sum;
  std::vector<std::uint8_t> base, threshold, mask, dots;
  std::vector<std::uint8_t> source;
  std::vector<std::uint64_t> kept;
  std::vector<CodeWord> codes;
  std::vector<float> mixed;
  std::vector<std::uint8_t> pair_base, pair_threshold, packed;

  Stages()
      : inks(kSourceWidth + taps.taps + kPixelPadding),
        filtered(kDeviceWidth),
        sum(kDeviceWidth),
        base(kDeviceWidth + kScreenBlock),
        threshold(kDeviceWidth + kScreenBlock),
        mask(grainy_photo(4)),
        dots(kDeviceWidth),
        source(grainy_photo(2)),
        kept((kDeviceWidth + 63) / 64, 0x0123456789abcdefu),
        codes(kSourceWidth + kPixelPadding),
        mixed(2 * kSourceWidth),
        pair_base(2 * (kSourceWidth + kPixelPadding)),
        pair_threshold(2 * (kSourceWidth + kPixelPadding)),
        packed(kDeviceWidth / 4) {
    for (std::size_t x = 0; x < kSourceWidth; ++x) {
      inks[x] = static_cast<float>(source[x]) * 0.8f;
      const DropCode code = drop_code(inks[x]);
      codes[x] = static_cast<CodeWord>(code.base | code.threshold << 8);
    }
    runnable_instruction_sets().front()->screening.filter_columns(inks.data(), taps.view(), filtered.data());
    runnable_instruction_sets().front()->screening.encode_row(filtered.data(), kDeviceWidth, base.data(),
                                                              threshold.data());
  }
};

enum Stage { filter, blend, encode, pairs, mix, gather, screen, keep, screen_to_packed };

void run_stage(Stage stage, const ScreeningKernels& k, Stages& s) {
  switch (stage) {
    case filter:
      return k.filter_columns(s.inks.data(), s.taps.view(), s.filtered.data());
    case blend:
      return k.add_scaled_row(s.filtered.data(), 0.0f, s.sum.data(), kDeviceWidth);
    case encode:
      return k.encode_row(s.filtered.data(), kDeviceWidth, s.base.data(), s.threshold.data());
    case pairs:
      return k.encode_pairs(s.inks.data(), s.codes.data(), s.taps.pairs.weights(), kSourceWidth,
                            s.pair_base.data(), s.pair_threshold.data());
    case mix:
      return k.mix_pairs(s.inks.data(), s.taps.pairs.weights(), kSourceWidth, s.mixed.data());
    case gather:
      return k.gather_codes(s.pair_base.data(), s.pair_threshold.data(), s.taps.pairs.gather.view(),
                            s.base.data(), s.threshold.data());
    case screen:
      return k.screen_row(s.base.data(), s.threshold.data(), s.mask.data(), kDeviceWidth, s.dots.data());
    case keep:
      return k.keep_dots(s.kept.data(), kDeviceWidth, s.dots.data());
    case screen_to_packed:
      return k.screen_packed(s.base.data(), s.threshold.data(), s.mask.data(), s.kept.data(), s.kept.data(),
                             kDeviceWidth, s.packed.data());
  }
}

void kernel_row(benchmark::State& state, Stage stage, const InstructionSet* set) {
  Stages stages;
  for (auto _ : state) {
    run_stage(stage, set->screening, stages);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kDeviceWidth);
}

std::unique_ptr<RipEngine> make_engine(std::uint32_t y_dpi, ResamplingMode mode) {
  Logger::instance().set_level(LogLevel::error);
  RipEngineParams params;
  params.y_dpi = y_dpi;
  params.n_channels = 5;
  params.tile_h = 16;  // quick to generate; a row is as long as that of the masks in use
  params.n_masks = 5;
  params.cache_dir = (std::filesystem::temp_directory_path() / "nvo_screening_bench").string();
  params.color_resampling = mode;
  params.threads.rows.division = WorkDivision::never;
  auto engine = std::make_unique<RipEngine>(params);
  std::filesystem::remove_all(params.cache_dir);
  return engine;
}

void strip(benchmark::State& state, std::uint32_t y_dpi, ResamplingMode mode, const InstructionSet* set,
           bool reuse) {
  const ForcedInstructionSet forced(*set);
  const auto engine = make_engine(y_dpi, mode);
  const auto plane = grainy_photo(kSourceRows);
  RipEngine::ProcessScratch scratch;
  DropMap drops;
  for (auto _ : state) {
    if (!reuse) drops = {};
    engine->process_strip(drops, {.src = PlaneView(plane.data(), kSourceWidth, kSourceRows),
                                  .strip_src_y = 0,
                                  .total_src_rows = 4 * kSourceRows,
                                  .channel = 0,
                                  .coverage_plane = {},
                                  .choke = nullptr,
                                  .scratch = &scratch});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * drops.data.size()));
}

/// The same strip cut into discs, with the choke's ring around each: several times the outline of usual art.
void ring_strip(benchmark::State& state) {
  RipEngineParams params = make_engine(1800, ResamplingMode::smooth)->params();
  params.white_choke_enabled = true;
  params.white_choke_amount_px_at_300dpi = 1.5f;
  params.white_choke_strategy = WhiteChokeStrategy::production;
  RipEngine engine(params);
  std::filesystem::remove_all(params.cache_dir);
  const auto plane = grainy_photo(kSourceRows);
  std::vector<std::uint8_t> coverage(plane.size());
  for (std::size_t i = 0; i < coverage.size(); ++i) {
    const int x = static_cast<int>(i % kSourceWidth % 32) - 16,
              y = static_cast<int>(i / kSourceWidth % 32) - 16;
    coverage[i] = x * x + y * y < 144 ? 255 : 0;
  }
  const PlaneView coverage_view(coverage.data(), kSourceWidth, kSourceRows);
  const ChokeContext choke = engine.prepare_device_white({.coverage = coverage_view,
                                                          .exempt_mask = {},
                                                          .support_plane = {},
                                                          .light_mask = {},
                                                          .strip_src_y = 0,
                                                          .total_src_rows = kSourceRows});
  RipEngine::ProcessScratch scratch;
  DropMap drops;
  for (auto _ : state)
    engine.process_strip(drops, {.src = PlaneView(plane.data(), kSourceWidth, kSourceRows),
                                 .strip_src_y = 0,
                                 .total_src_rows = kSourceRows,
                                 .channel = 0,
                                 .coverage_plane = coverage_view,
                                 .choke = &choke,
                                 .scratch = &scratch});
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * drops.data.size()));
}

void plain_strip(benchmark::State& state) {
  const auto engine = make_engine(1800, ResamplingMode::smooth);
  const test::PlainRipEngine plain(*engine);
  const auto plane = grainy_photo(kPlainRows);
  std::size_t dots = 0;
  for (auto _ : state)
    dots += plain.screen({plane, kSourceWidth, kPlainRows, 0, 4 * kPlainRows, 0, false}, nullptr).data.size();
  state.SetItemsProcessed(static_cast<std::int64_t>(dots));
}

const bool registered = [] {
  const auto sets = runnable_instruction_sets();
  const struct {
    const char* name;
    Stage stage;
  } stages[] = {{"filter_columns", filter}, {"add_scaled_row", blend}, {"encode_row", encode},
                {"encode_pairs", pairs},    {"mix_pairs", mix},        {"gather_codes", gather},
                {"screen_row", screen},     {"keep_dots", keep},       {"screen_packed", screen_to_packed}};
  for (const auto& stage : stages)
    for (const InstructionSet* set : sets)
      benchmark::RegisterBenchmark((std::string(stage.name) + "/" + set->name).c_str(), kernel_row,
                                   stage.stage, set);
  for (const InstructionSet* set : sets) {
    const std::string name = std::string("/") + set->name;
    for (const std::uint32_t y_dpi : {720u, 900u, 1800u})
      benchmark::RegisterBenchmark(("strip_smooth_" + std::to_string(y_dpi) + name).c_str(), strip, y_dpi,
                                   ResamplingMode::smooth, set, true);
    benchmark::RegisterBenchmark(("strip_hard_1800" + name).c_str(), strip, 1800u, ResamplingMode::hard, set,
                                 true);
  }
  benchmark::RegisterBenchmark("strip_smooth_1800_fresh_memory", strip, 1800u, ResamplingMode::smooth,
                               sets.back(), false);
  benchmark::RegisterBenchmark("strip_rings_1800", ring_strip);
  benchmark::RegisterBenchmark("strip_plain_1800", plain_strip);
  return true;
}();

}  // namespace
}  // namespace nvo
