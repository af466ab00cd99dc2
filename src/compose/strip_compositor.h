#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "compose/compositor_config.h"
#include "compose/compositor_counters.h"
#include "compose/item_composer.h"
#include "compose/strip_buffer.h"
#include "config/icc_settings.h"
#include "plan/rip_job_options.h"

namespace nvo {

/// An item of the layout and what became of it.
struct ItemReport {
  const LayoutItem& item;
  std::uint32_t height_px = 0;  ///< as placed
  ItemOutcome outcome;
};

/// Turns the placed sheet into strips: the full sheet width by some rows, on the source grid. Set layout,
/// colour and profiling first; from then on `compose_strip` may run on several threads at once.
class StripCompositor {
 public:
  explicit StripCompositor(const StripCompositorConfig& config) : config_(config), composer_(config) {}

  /// Copies the layout and forgets what was cached of an earlier one.
  void set_layout(const SheetLayout& layout);
  /// Forgets all converters, so that a profile that failed is tried again.
  void set_icc_settings(const IccSettings& settings);
  void set_profiling(bool enabled) { composer_.counters().set_profiling(enabled); }
  void reset_counters() { composer_.counters().reset(); }
  CompositorCounters read_counters() const { return composer_.counters().read(); }
  std::optional<ImageMeta> item_meta(const LayoutItem& item) { return composer_.item_meta(item); }

  /// Rows `y` .. `y + height - 1` of the sheet; height 0 stands for the configured one. Later items cover
  /// earlier ones without blending. An item that cannot be read is logged and left out; running out of memory
  /// throws. The memory of `spent`, a strip that nobody needs any longer, is used again. `next` are the sheet
  /// rows that will be composed next, of which art that is taken in order is decoded ahead.
  StripBuffer compose_strip(std::uint32_t y, std::uint32_t height, StripBuffer spent = {},
                            const IndexRange& next = {});

  /// Begins the sheet, anew if strips of it were composed. In order, strips come from the sheet's top to its
  /// bottom, one at a time, and its only item is composed while it is decoded, see
  /// `ImageFormat::open_stream`. `compose_strip` and `finish` then throw `RowStreamBroken` where the sheet
  /// has to be made the other way.
  void begin_sheet(bool in_order);
  /// After the last strip.
  void finish() { composer_.finish_in_order(); }

  /// One report an item, in the layout's order, of all strips composed so far; none may be in work.
  std::vector<ItemReport> item_reports() const;

 private:
  struct IndexEntry {
    std::size_t position;  ///< in the layout's items
    float top_in, bottom_in;
  };

  StripBuffer blank_strip(std::uint32_t y, std::uint32_t height, StripBuffer spent) const;
  std::vector<const LayoutItem*> select_items(std::uint32_t y, std::uint32_t height) const;
  void compose_sequentially(const std::vector<const LayoutItem*>& items, StripBuffer& strip,
                            const IndexRange& next);
  void compose_in_parallel(const std::vector<const LayoutItem*>& items, std::uint32_t threads,
                           StripBuffer& strip);
  void compose_item(const LayoutItem& item, StripBuffer& strip, WorkerIcc* worker,
                    const IndexRange& next = {});
  void finish_white(StripBuffer& strip);

  const StripCompositorConfig config_;
  SheetLayout layout_;
  std::vector<IndexEntry> item_index_;  ///< by top edge
  ItemComposer composer_;
  std::vector<ItemOutcome> outcomes_;  ///< by position in the layout
  std::mutex outcomes_mutex_;
  std::mutex compose_mutex_;  ///< one strip at a time divides its items among threads
};

}  // namespace nvo
