#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "compose/content_signature.h"
#include "compose/fifo_cache.h"
#include "compose/item_raster.h"
#include "core/threads/thread_plan.h"
#include "image/image_types.h"
#include "image/raster_source.h"

namespace nvo {

/// A row source that several items may hold. It serves one thread at a time: the one that holds `use`.
struct SharedSource {
  std::shared_ptr<RasterSource> reader;
  std::mutex use;
};

/// Lets one thread at a time make the thing of a key, so that others find it made instead of making it too.
class KeyedGate {
 public:
  [[nodiscard]] std::unique_lock<std::mutex> enter(const std::string& key);

 private:
  std::array<std::mutex, 16> doors_;  ///< keys share them by hash
};

/// Sources, images, rasters and classifications of the files of a sheet, so that repeated strips and copies
/// are cheap. Any thread may call; nothing is opened or decoded under the caches' lock. What a cache drops
/// lives on with its users. A signature that isn't valid passes the caches by.
class ItemCaches {
 public:
  explicit ItemCaches(const ThreadPlan& threads) : threads_(threads) {}
  void clear();

  /// Opens, or hands out the open source. Throws when the file cannot be opened; after that it isn't tried
  /// again, nor is a load that failed.
  std::shared_ptr<SharedSource> open_raster_source(const ContentSignature& signature,
                                                   const std::string& path);
  /// Forgets `source`, but not another that has taken its place.
  void forget_source(const ContentSignature& signature, const std::shared_ptr<SharedSource>& source);

  /// Loads, or hands out the loaded image. Throws when the file cannot be loaded.
  std::shared_ptr<const LoadedImage> load_image_cached(const ContentSignature& signature,
                                                       const std::string& path);

  std::shared_ptr<const PreparedItemRaster> find_raster(const std::string& key) const;
  /// The raster that is then cached: the first one put in.
  std::shared_ptr<const PreparedItemRaster> insert_raster(const std::string& key,
                                                          std::shared_ptr<const PreparedItemRaster> raster);
  KeyedGate& raster_gate() { return raster_gate_; }

  std::optional<bool> find_classification(const ContentSignature& signature) const;
  void store_classification(const ContentSignature& signature, bool binary);

 private:
  SharedFailures failures_of(const ContentSignature& signature);

  const ThreadPlan threads_;
  mutable std::mutex cache_mutex_;
  FifoCache<std::shared_ptr<const LoadedImage>> images_{32};
  FifoCache<std::shared_ptr<SharedSource>> sources_{16};
  FifoCache<std::shared_ptr<const PreparedItemRaster>> rasters_{64};
  FifoCache<bool> classifications_{64};
  FifoCache<SharedFailures> failures_{64};
  KeyedGate image_gate_, raster_gate_;
};

}  // namespace nvo
