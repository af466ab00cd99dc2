#include "compose/strip_compositor.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

#include "compose/white_underbase.h"
#include "core/large_vector.h"
#include "core/log.h"
#include "core/threads/parallel.h"

namespace nvo {
namespace {

/// An item of this size divides its rows among threads and gains nothing from company.
constexpr std::uint64_t kMaxParallelItemPixels = 0x400000;

std::uint32_t strip_width(const StripCompositorConfig& config) {
  constexpr double kSizeSlack = 0.0001;  // an exact number of pixels in inches gains none through f32 noise
  const double width = std::ceil(
      static_cast<double>(config.src_dpi) * static_cast<double>(config.sheet_width_in) - kSizeSlack);
  if (!(width > 0.0)) return 0;
  return static_cast<std::uint32_t>(std::min(width, 4294967295.0));
}

/// An item's pixels on one strip, in sheet coordinates.
struct ItemRect {
  const LayoutItem* item;
  std::int64_t x0, y0, x1, y1;

  std::uint64_t area() const {
    return static_cast<std::uint64_t>(x1 - x0) * static_cast<std::uint64_t>(y1 - y0);
  }
  bool overlaps(const ItemRect& other) const {
    return x1 > other.x0 && other.x1 > x0 && y1 > other.y0 && other.y1 > y0;
  }
};

ItemRect clip_to_strip(const LayoutItem& item, const ItemPlacement& place, const StripBuffer& strip) {
  const std::int64_t strip_y = strip.y;
  return {&item, std::max<std::int64_t>(place.x, 0), std::max(place.y, strip_y),
          std::min<std::int64_t>(place.x + place.width, strip.width),
          std::min(place.y + place.height, strip_y + strip.height)};
}

bool any_overlap(const std::vector<ItemRect>& rects) {
  for (std::size_t i = 0; i < rects.size(); ++i)
    for (std::size_t j = i + 1; j < rects.size(); ++j)
      if (rects[i].overlaps(rects[j])) return true;
  return false;
}

/// How a strip's items are shared out; one thread where their order matters or a large one is among them.
struct ParallelPlan {
  std::vector<const LayoutItem*> items;
  std::uint32_t threads = 1;
};

ParallelPlan plan_parallel(const std::vector<const LayoutItem*>& items, const StripBuffer& strip,
                           const StripCompositorConfig& config) {
  ParallelPlan plan;
  std::vector<ItemRect> rects;
  std::uint64_t pixels = 0;
  for (const LayoutItem* item : items) {
    const ItemPlacement placement = place_item(*item, config.src_dpi);
    if (placement.area() >= kMaxParallelItemPixels) return plan;
    const ItemRect rect = clip_to_strip(*item, placement, strip);
    if (rect.x1 <= rect.x0 || rect.y1 <= rect.y0) continue;
    rects.push_back(rect);
    plan.items.push_back(item);
    pixels += rect.area();
  }
  if (!any_overlap(rects)) plan.threads = config.threads.compose_threads(rects.size(), pixels);
  return plan;
}

}  // namespace

void StripCompositor::set_layout(const SheetLayout& layout) {
  layout_ = layout;
  item_index_.clear();
  for (std::size_t i = 0; i < layout_.items.size(); ++i) {
    const LayoutItem& item = layout_.items[i];
    item_index_.push_back({i, item.y_in, item.y_in + item.height_in});
  }
  std::stable_sort(item_index_.begin(), item_index_.end(), [](const IndexEntry& a, const IndexEntry& b) {
    return std::tie(a.top_in, a.bottom_in, a.position) < std::tie(b.top_in, b.bottom_in, b.position);
  });
  composer_.clear_caches();
  outcomes_.assign(layout_.items.size(), {});
}

void StripCompositor::set_icc_settings(const IccSettings& settings) {
  const std::lock_guard lock(compose_mutex_);
  composer_.set_icc_settings(settings);
}

void StripCompositor::begin_sheet(bool in_order) {
  composer_.take_in_order(in_order);
  composer_.counters().reset();
  outcomes_.assign(layout_.items.size(), {});
}

StripBuffer StripCompositor::compose_strip(std::uint32_t y, std::uint32_t height, StripBuffer spent,
                                           const IndexRange& next) {
  if (height == 0) height = config_.strip_h_px;
  CounterBook& counters = composer_.counters();
  counters.add_when_profiling(&CompositorCounters::strips, 1);

  StripBuffer strip = blank_strip(y, height, std::move(spent));
  const auto items = select_items(y, height);
  counters.add_when_profiling(&CompositorCounters::items_seen, items.size());
  if (items.empty()) return strip;
  log_debug("StripCompositor: strip y=", y, " h=", height, " items=", items.size());

  const ParallelPlan plan = plan_parallel(items, strip, config_);
  if (plan.threads < 2) {
    compose_sequentially(items, strip, next);
  } else {
    compose_in_parallel(plan.items, plan.threads, strip);
  }
  finish_white(strip);
  return strip;
}

StripBuffer StripCompositor::blank_strip(std::uint32_t y, std::uint32_t height, StripBuffer spent) const {
  StripBuffer strip = std::move(spent);
  strip.width = strip_width(config_);
  strip.height = height;
  strip.y = y;
  strip.channel_count = config_.channel_count;
  const std::size_t pixels = strip.pixels();
  const auto planes = strip.all_planes();
  for (Plane* plane : planes) reserve_large(*plane, pixels);
  parallel_ranges(planes.size(), config_.threads.compose_threads(planes.size(), pixels),
                  [&](std::size_t begin, std::size_t end, std::size_t) {
                    for (std::size_t i = begin; i < end; ++i) planes[i]->assign(pixels, 0);
                  });
  return strip;
}

/// Items that may show on these rows, in paint order.
std::vector<const LayoutItem*> StripCompositor::select_items(std::uint32_t y, std::uint32_t height) const {
  const auto dpi = static_cast<float>(config_.src_dpi);
  const float top = static_cast<float>(y) / dpi;
  const float bottom = static_cast<float>(std::uint64_t{y} + height) / dpi;
  std::vector<std::size_t> positions;
  for (const IndexEntry& entry : item_index_) {
    if (entry.top_in >= bottom) break;
    if (entry.bottom_in > top) positions.push_back(entry.position);
  }
  std::sort(positions.begin(), positions.end());
  std::vector<const LayoutItem*> items;
  for (const std::size_t position : positions) items.push_back(&layout_.items[position]);
  return items;
}

void StripCompositor::compose_sequentially(const std::vector<const LayoutItem*>& items, StripBuffer& strip,
                                           const IndexRange& next) {
  for (const LayoutItem* item : items) compose_item(*item, strip, nullptr, next);
}

void StripCompositor::compose_in_parallel(const std::vector<const LayoutItem*>& items, std::uint32_t threads,
                                          StripBuffer& strip) {
  const std::lock_guard one_strip(compose_mutex_);
  composer_.require_workers(threads);
  parallel_ranges(items.size(), threads, [&](std::size_t begin, std::size_t end, std::size_t worker) {
    for (std::size_t i = begin; i < end; ++i) compose_item(*items[i], strip, &composer_.worker_icc(worker));
  });
}

void StripCompositor::compose_item(const LayoutItem& item, StripBuffer& strip, WorkerIcc* worker,
                                   const IndexRange& next) {
  const CounterBook::Timer timer(composer_.counters(), &CompositorCounters::blit_ns);
  const ItemOutcome outcome = composer_.compose_item(item, strip, worker, next);
  const std::lock_guard lock(outcomes_mutex_);
  outcomes_[static_cast<std::size_t>(&item - layout_.items.data())].add(outcome);
}

std::vector<ItemReport> StripCompositor::item_reports() const {
  std::vector<ItemReport> reports;
  for (std::size_t i = 0; i < outcomes_.size(); ++i) {
    const LayoutItem& item = layout_.items[i];
    reports.push_back({item, place_item(item, config_.src_dpi).height, outcomes_[i]});
  }
  return reports;
}

void StripCompositor::finish_white(StripBuffer& strip) {
  const CounterBook::Timer timer(composer_.counters(), &CompositorCounters::white_underbase_ns);
  WhiteUnderbaseParams params;
  hand_over<StripWhite>(config_, params);
  params.choke_enabled = config_.source_grid_choke_enabled;
  params.choke_amount_px_at_300dpi = config_.white_choke_amount_px_at_300dpi;
  params.choke_strategy = config_.white_choke_strategy;
  apply_white_underbase(strip, config_.src_dpi, params);
}

}  // namespace nvo
