#include "screen/choke/device_choke.h"

#include <algorithm>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/large_vector.h"
#include "core/threads/parallel.h"
#include "screen/choke/bit_morphology.h"
#include "screen/choke/choke_offsets.h"
#include "screen/choke/choke_sampling.h"
#include "screen/choke/colour_ring.h"
#include "screen/choke/white_erosion.h"
#include "screen/device_grid.h"
#include "screen/row_sampler.h"

namespace nvo {
namespace {

/// A part costs some rows above and below it as well.
constexpr std::size_t kLeastPanelsOfPart = 6;

/// Radius and settings of a context.
void describe(const DeviceChokeParams& params, bool adaptive, ChokeContext& context) {
  const DeviceChoke& choke = params.choke;
  const float amount = choke.white_choke_amount_px_at_300dpi;
  context.radius_in = amount > 0.0f ? amount / WhiteChoke::kReferenceDpi : 0.0f;
  context.radius_px_x = static_cast<float>(params.x_dpi) * context.radius_in;
  context.radius_px_y = static_cast<float>(params.y_dpi) * context.radius_in;
  context.adaptive = adaptive;
  if (!adaptive) return;
  context.min_width_dots = std::max(choke.white_choke_adaptive_min_width_dots, 1u);
  context.protect_light = choke.white_choke_adaptive_protect_light_enabled;
  if (context.protect_light)
    context.lightness_threshold = WhiteChoke::kLightness.cut(choke.white_choke_adaptive_lightness_threshold);
}

/// The outline of a set of offsets. Its rows are unbroken, as distance grows with the columns.
OffsetShape shape_of(std::span<const ChokeOffset> offsets) {
  OffsetShape shape;
  for (const ChokeOffset& offset : offsets) {
    if (offset.dx < 0 || offset.dy < 0) continue;
    const auto dx = static_cast<std::uint32_t>(offset.dx), dy = static_cast<std::uint32_t>(offset.dy);
    if (shape.half_width.size() <= dy) shape.half_width.resize(dy + 1);
    shape.half_width[dy] = std::max(shape.half_width[dy], dx);
  }
  return shape;
}

/// A fresh context on the memory of another one. Its planes are as they were there, so that those which keep
/// their size need not be cleared.
ChokeContext with_memory_of(ChokeContext spent) {
  ChokeContext context;
  for (BitPlane ChokeContext::*plane :
       {&ChokeContext::colour_core, &ChokeContext::exempt, &ChokeContext::grown, &ChokeContext::support,
        &ChokeContext::keep, &ChokeContext::light})
    context.*plane = std::move(spent.*plane);
  context.ring.panels = std::move(spent.ring.panels);
  for (auto& panel : context.ring.panels) panel.clear();
  context.ring.changed = std::move(spent.ring.changed);
  return context;
}

/// Finds the rows that have the same codes: those that lie inside one source row and whose centre does.
void number_code_rows(const DeviceChokeInput& input, const ChokeRowMap& row_map, std::uint32_t first_row,
                      float scale_y, ColourRingRows& ring) {
  std::vector<RowSpan> spans(row_map.source.size());
  area_row_spans(spans, first_row, scale_y, input.strip_src_y, input.coverage.height());
  ring.code_row.assign(spans.size(), 0);
  for (std::size_t y = 1; y < spans.size(); ++y) {
    const bool same = spans[y].count == 1 && spans[y - 1].count == 1 &&
                      spans[y].first == spans[y - 1].first && row_map.source[y] == row_map.source[y - 1];
    ring.code_row[y] = ring.code_row[y - 1] + (same ? 0 : 1);
  }
}

/// Fills `keep`, `grown` and the ring of a context whose other masks are there.
class StripChoke {
 public:
  StripChoke(ChokeContext& context, const ChokeRowMap& row_map, std::vector<ChokeOffset> offsets)
      : context_(context), row_map_(row_map), offsets_(std::move(offsets)), disc_(shape_of(offsets_)) {}

  void run(std::uint32_t threads) {
    const std::size_t rows = context_.height;
    if (context_.adaptive)
      context_.keep.reshape(context_.width, context_.height);
    else
      context_.keep.reshape(0, 0);
    context_.grown.reshape(context_.width, context_.height);
    const std::size_t panels = (rows + ColourRingRows::kPanelRows - 1) / ColourRingRows::kPanelRows;
    context_.ring.lay_out(context_.width, static_cast<std::uint32_t>(disc_.reach()));
    context_.ring.changed.reshape(context_.width, context_.height);
    context_.ring.row_ends.resize(rows);
    context_.ring.panels.resize(panels);
    // Art is dense in one place and absent in another.
    const std::vector<WorkRange> parts = guided_ranges(panels, threads, kLeastPanelsOfPart);
    parallel_tasks(parts.size(), threads, [&](std::size_t part, std::size_t) { choke_panels(parts[part]); });
  }

 private:
  void choke_panels(const WorkRange& panels) {
    const auto first_row = [&](std::size_t panel) {
      return std::min<std::size_t>(panel * ColourRingRows::kPanelRows, context_.height);
    };
    std::optional<WhiteErosion> white;
    if (context_.adaptive)
      white.emplace(context_, row_map_.first_equal, disc_, first_row(panels.begin), first_row(panels.end),
                    context_.keep);
    ColourRing colour(context_, offsets_, disc_);
    LargeVector<std::uint32_t> places(ColourRingRows::kPanelRows * context_.width);
    for (std::size_t panel = panels.begin; panel < panels.end; ++panel) {
      std::uint32_t* places_end = places.data();
      for (std::size_t y = first_row(panel); y < first_row(panel + 1); ++y) {
        const ColourRing::Row row{context_.grown.row(y), context_.ring.changed.row(y), places_end};
        std::copy_n(context_.colour_core.row(y), context_.colour_core.words_per_row, row.grown);
        const std::uint64_t* halo = white ? white->halo_row(y) : nullptr;
        const bool may_grow = !white || halo != nullptr;
        if (!may_grow || !colour.grow_row(y, halo, y == first_row(panel), row))
          std::fill_n(row.changed, context_.colour_core.words_per_row, std::uint64_t{0});
        context_.ring.row_ends[y] = static_cast<std::uint32_t>(places_end - places.data());
      }
      context_.ring.panels[panel].assign(places.data(), places_end);  // in no more memory than it takes
    }
  }

  ChokeContext& context_;
  const ChokeRowMap& row_map_;
  std::vector<ChokeOffset> offsets_;
  OffsetShape disc_;
};

}  // namespace

ChokeContext prepare_device_choke(const DeviceChokeInput& input, const DeviceChokeParams& params,
                                  ChokeContext spent) {
  const PlaneView& coverage = input.coverage;
  if (coverage.null() || coverage.width() == 0 || coverage.height() == 0 || input.total_src_rows == 0)
    return {};
  const DeviceScale scale(params.src_dpi, params.x_dpi, params.y_dpi);
  const std::uint32_t dev_h = device_extent(input.total_src_rows, scale.y);
  const DeviceRows rows = device_rows_of_strip(input.strip_src_y, coverage.height(), scale.y, dev_h);
  ChokeContext context = rows.end > rows.first ? with_memory_of(std::move(spent)) : ChokeContext();
  context.width = device_extent(coverage.width(), scale.x);
  context.height = rows.end - rows.first;
  if (context.height == 0) return context;

  describe(params, params.choke.is_adaptive() && !input.support_plane.null(), context);
  const ChokeRowMap row_map(input, dev_h, rows);
  number_code_rows(input, row_map, rows.first, scale.y, context.ring);
  sample_choke_masks(input, row_map, params.threads, context);
  if (context.radius_in > 0.0f) {
    StripChoke(context, row_map, choke_offsets(params.x_dpi, params.y_dpi, context.radius_in))
        .run(params.threads);
  } else {
    context.keep = context.support;
    context.grown = context.colour_core;
  }
  return context;
}

}  // namespace nvo
