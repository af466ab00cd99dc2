#include "screen/choke/sheet_choke.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "core/scoped_timer.h"
#include "core/threads/parallel.h"
#include "screen/rip_engine.h"

namespace nvo {
namespace {

constexpr std::size_t kLeastRowsOfPart = 16;  ///< source rows that a thread takes at a time

/// A plane of another one's size in memory that is used again.
MutablePlaneView resized(LargeVector<std::uint8_t>& plane, const PlaneView& like) {
  resize_large(plane, std::size_t{like.width()} * like.height());
  return {plane.data(), like.width(), like.height()};
}

}  // namespace

SheetChoke::SheetChoke(const ChokePlan& plan) : plan_(plan) {
  if (plan.is_active() && plan.protects_light())
    light_protection_.emplace(plan.white_choke_adaptive_lightness_threshold);
}

void SheetChoke::reserve(std::uint32_t src_w, std::uint32_t src_rows, std::uint32_t dev_w,
                         std::uint32_t dev_rows) {
  if (!plan_.is_active()) return;
  reserve_large(coverage_, std::size_t{src_w} * src_rows);
  if (light_protection_) reserve_large(light_, std::size_t{src_w} * src_rows);
  for (BitPlane* plane : {&context_.grown, &context_.keep, &context_.ring.changed})
    plane->reshape(dev_w, dev_rows);
}

void SheetChoke::prepare(const RipEngine& engine, const ComposedStrip& strip, ChokeTimes& times) {
  if (!plan_.is_active()) return;
  {
    const ScopedTimer timer(times.planes);
    derive_planes(engine, strip);
  }
  const ScopedTimer timer(times.context);
  context_ =
      engine.prepare_device_white({.coverage = coverage_view_,
                                   .exempt_mask = strip.explicit_white,
                                   .support_plane = plan_.is_adaptive() ? strip.inks[kChannelW] : PlaneView(),
                                   .light_mask = light_view_,
                                   .strip_src_y = strip.src_y,
                                   .total_src_rows = strip.total_src_rows},
                                  std::move(context_));
}

void SheetChoke::derive_planes(const RipEngine& engine, const ComposedStrip& strip) {
  const auto& inks = strip.inks;
  const MutablePlaneView coverage = resized(coverage_, inks[kChannelC]);
  const MutablePlaneView light = light_protection_ ? resized(light_, inks[kChannelC]) : MutablePlaneView();
  coverage_view_ = coverage;
  light_view_ = light;
  const ColourPlanes colours{inks[kChannelC], inks[kChannelM], inks[kChannelY], inks[kChannelK]};
  const std::uint32_t threads = engine.params().threads.row_threads(coverage.height(), coverage.width());
  const std::vector<WorkRange> parts = guided_ranges(coverage.height(), threads, kLeastRowsOfPart);
  parallel_tasks(parts.size(), threads, [&](std::size_t part, std::size_t) {
    for (std::size_t y = parts[part].begin; y < parts[part].end;
         ++y) {  // both planes while the row is in cache
      colour_coverage(colours, y, coverage.row(y));
      if (light_protection_) light_protection_->protect(colours, y, light.row(y));
    }
  });
}

}  // namespace nvo
