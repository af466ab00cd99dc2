#include "compose/item_caches.h"

#include <utility>

#include "core/fnv1a.h"
#include "image/image_loader.h"

namespace nvo {
namespace {

template <class Value>
Value find_or_null(const FifoCache<Value>& cache, const std::string& key) {
  const Value* found = cache.find(key);
  return found != nullptr ? *found : Value{};
}

}  // namespace

std::unique_lock<std::mutex> KeyedGate::enter(const std::string& key) {
  return std::unique_lock(doors_[fnv1a(key.data(), key.size()) % doors_.size()]);
}

void ItemCaches::clear() {
  const std::lock_guard lock(cache_mutex_);
  images_.clear();
  sources_.clear();
  rasters_.clear();
  classifications_.clear();
}

std::shared_ptr<SharedSource> ItemCaches::open_raster_source(const ContentSignature& signature,
                                                             const std::string& path) {
  if (signature.valid) {
    const std::lock_guard lock(cache_mutex_);
    if (auto open = find_or_null(sources_, signature.key)) return open;
  }
  auto source = std::make_shared<SharedSource>();
  source->reader = make_raster_source(path);
  if (!signature.valid) return source;
  const std::lock_guard lock(cache_mutex_);
  return sources_.insert(signature.key, std::move(source));
}

void ItemCaches::forget_source(const ContentSignature& signature,
                               const std::shared_ptr<SharedSource>& source) {
  if (!signature.valid) return;
  const std::lock_guard lock(cache_mutex_);
  if (find_or_null(sources_, signature.key) == source) sources_.erase(signature.key);
}

std::shared_ptr<const LoadedImage> ItemCaches::load_image_cached(const ContentSignature& signature,
                                                                 const std::string& path) {
  if (!signature.valid) return std::make_shared<const LoadedImage>(load_image(path));
  const auto alone = image_gate_.enter(signature.key);
  {
    const std::lock_guard lock(cache_mutex_);
    if (auto loaded = find_or_null(images_, signature.key)) return loaded;
  }
  auto image = std::make_shared<const LoadedImage>(load_image(path));
  const std::lock_guard lock(cache_mutex_);
  return images_.insert(signature.key, std::move(image));
}

std::shared_ptr<const PreparedItemRaster> ItemCaches::find_raster(const std::string& key) const {
  const std::lock_guard lock(cache_mutex_);
  return find_or_null(rasters_, key);
}

std::shared_ptr<const PreparedItemRaster> ItemCaches::insert_raster(
    const std::string& key, std::shared_ptr<const PreparedItemRaster> raster) {
  const std::lock_guard lock(cache_mutex_);
  return rasters_.insert(key, std::move(raster));
}

std::optional<bool> ItemCaches::find_classification(const ContentSignature& signature) const {
  if (!signature.valid) return std::nullopt;
  const std::lock_guard lock(cache_mutex_);
  const bool* found = classifications_.find(signature.key);
  return found != nullptr ? std::optional(*found) : std::nullopt;
}

void ItemCaches::store_classification(const ContentSignature& signature, bool binary) {
  if (!signature.valid) return;
  const std::lock_guard lock(cache_mutex_);
  classifications_.insert(signature.key, binary);
}

}  // namespace nvo
