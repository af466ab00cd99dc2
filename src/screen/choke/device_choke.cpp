#include "screen/choke/device_choke.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/threads/parallel.h"
#include "screen/choke/bit_morphology.h"
#include "screen/choke/choke_offsets.h"
#include "screen/choke/choke_sampling.h"
#include "screen/choke/colour_ring.h"
#include "screen/choke/white_erosion.h"
#include "screen/device_grid.h"

namespace nvo {
namespace {

/// A part costs some rows above and below it as well.
constexpr std::size_t kLeastRowsOfPart = 192;

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
  context.ring = std::move(spent.ring);
  context.ring.clear();
  return context;
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
    context_.ring_rows.assign(rows + 1, 0);
    // Art is dense in one place and absent in another.
    const std::vector<WorkRange> parts = guided_ranges(rows, threads, kLeastRowsOfPart);
    std::vector<std::vector<RingDot>> rings(parts.size());
    parallel_tasks(parts.size(), threads, [&](std::size_t part, std::size_t) {
      rings[part] = choke_rows(parts[part].begin, parts[part].end);
    });
    join(rings);
  }

 private:
  /// Returns the ring dots of rows `begin` up to `end` and writes the count of each row behind its place.
  std::vector<RingDot> choke_rows(std::size_t begin, std::size_t end) {
    std::optional<WhiteErosion> white;
    if (context_.adaptive) white.emplace(context_, row_map_.first_equal, disc_, begin, end, context_.keep);
    ColourRing colour(context_, offsets_, disc_);
    std::vector<RingDot> ring;
    for (std::size_t y = begin; y < end; ++y) {
      const std::size_t before = ring.size();
      std::copy_n(context_.colour_core.row(y), context_.colour_core.words_per_row, context_.grown.row(y));
      const std::uint64_t* halo = white ? white->halo_row(y) : nullptr;
      if (!white || halo != nullptr) colour.grow_row(y, halo, context_.grown.row(y), ring);
      context_.ring_rows[y + 1] = ring.size() - before;
    }
    return ring;
  }

  void join(std::vector<std::vector<RingDot>>& rings) {
    std::partial_sum(context_.ring_rows.begin(), context_.ring_rows.end(), context_.ring_rows.begin());
    context_.ring = std::move(rings.front());
    context_.ring.reserve(context_.ring_rows.back());
    for (std::size_t part = 1; part < rings.size(); ++part) {
      context_.ring.insert(context_.ring.end(), rings[part].begin(), rings[part].end());
      rings[part] = {};
    }
    if (context_.ring.empty()) context_.ring_rows.clear();
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
