#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "compose/color_conversion.h"
#include "compose/compositor_config.h"
#include "compose/compositor_counters.h"
#include "compose/item_caches.h"
#include "compose/item_outcome.h"
#include "compose/item_raster.h"
#include "compose/lease_pool.h"
#include "compose/strip_buffer.h"
#include "image/row_stream.h"
#include "plan/rip_job_options.h"

namespace nvo {

/// An image that is composed while it is decoded.
struct ArtInOrder {
  std::unique_ptr<RowStream> stream;
  std::string key;          ///< of the file's signature
  bool is_large = false;    ///< so that bottom-up its rows would be read, not the whole of it
  bool classified = false;  ///< its coverage was
};

/// Paints one placed image into a strip, in one of three ways with equal results: from the few source rows
/// that the strip needs (large files), from a raster of the whole item that all strips and copies share, or
/// straight from the loaded image. Any thread may compose; items that run at the same time must not overlap
/// in one strip.
class ItemComposer {
 public:
  explicit ItemComposer(const StripCompositorConfig& config);

  /// Not during composition.
  void set_icc_settings(const IccSettings& settings);
  void clear_caches() { caches_.clear(); }

  /// An item that cannot be read is logged and left out. A null worker uses the shared converters, and may
  /// divide rows among threads. Returns what became of the item on this strip.
  /// `next` are the sheet rows of the strip that follows; only art that is taken in its order asks for them.
  ItemOutcome compose_item(const LayoutItem& item, StripBuffer& strip, WorkerIcc* worker,
                           const IndexRange& next = {});

  /// Strips come from the sheet's top to its bottom from here on, or no longer: then the image of the only
  /// item is composed while it is decoded. Forgets what is cached. Not during composition.
  void take_in_order(bool in_order);
  /// After the last strip: makes sure that an image taken in order is sound to its end.
  void finish_in_order();

  /// What an item's file says of itself, from the source that its composition will use. Nothing where it
  /// can't be opened; composing it then tells why.
  std::optional<ImageMeta> item_meta(const LayoutItem& item);

  CounterBook& counters() { return counters_; }
  const CounterBook& counters() const { return counters_; }
  /// The converters of item worker `worker`; for one strip at a time.
  WorkerIcc& worker_icc(std::size_t worker) { return *worker_icc_[worker]; }
  /// Makes sure that so many of them are there; they stay until the settings change.
  void require_workers(std::size_t count);

 private:
  /// One item on one strip.
  struct Job {
    const LayoutItem& item;
    StripBuffer& strip;
    WorkerIcc* worker;
    ItemPlacement placement;
    IndexRange rows;  ///< of the item, that the strip shows
    ContentSignature signature;
    ItemOutcome& outcome;
  };
  /// What all three ways compute from an item's metadata before the first pixel.
  struct Plan {
    ItemGrid grid;
    ItemTraits traits;
    RowColor color;
  };

  /// What rasterising wrote.
  struct Painted {
    std::uint64_t pixels = 0;
    bool has_ink = false;
  };

  void compose_in_order(const Job& job, const IndexRange& next_rows);
  void open_in_order(const Job& job);
  void warn_of_inert_switches() const;
  std::shared_ptr<SharedSource> open_source(const Job& job);
  bool compose_from_source(const Job& job, SharedSource& source);
  bool read_source_rows(const Job& job, RasterSource& source, const IndexRange& rows,
                        std::vector<std::uint8_t>& buffer);
  void compose_from_image(const Job& job);
  std::shared_ptr<const LoadedImage> load_item(const Job& job);
  std::string raster_key(const Job& job) const;
  std::shared_ptr<const PreparedItemRaster> prepare_item_raster(const Job& job, const std::string& key,
                                                                const LoadedImage& image);
  void count_painted(const Job& job, const Painted& painted);
  void compose_direct(const Job& job, const LoadedImage& image);

  Plan make_plan(const Job& job, const ImageMeta& meta);
  RowColor start_color(const ImageMeta& meta, bool is_rgb, WorkerIcc* worker);
  bool classify_white_coverage(const Job& job, const LoadedImage* image, RasterSource* source);
  void raster_onto_strip(const Job& job, const Plan& plan, const SourceView& view);
  Painted raster_rows(const Plan& plan, const SourceView& view, const ColumnMap& columns,
                      const IndexRange& rows, const PixelTarget& target);

  const StripCompositorConfig config_;
  const std::vector<const char*> inert_switches_;  ///< of the environment, that are set
  std::optional<ArtInOrder> in_order_;
  ColorConversion conversion_;
  ItemCaches caches_;
  CounterBook counters_;
  std::vector<std::unique_ptr<WorkerIcc>> worker_icc_;
  LeasePool<WorkerIcc> row_icc_;  ///< of threads that share an item's rows
  LeasePool<std::vector<std::uint8_t>> row_buffers_;
};

}  // namespace nvo
