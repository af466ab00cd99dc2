#include "compose/item_caches.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "core/fnv1a.h"
#include "core/machine_failure.h"
#include "image/image_loader.h"

namespace nvo {
namespace {

template <class Value>
Value find_or_null(const FifoCache<Value>& cache, const std::string& key) {
  const Value* found = cache.find(key);
  return found != nullptr ? *found : Value{};
}

/// Runs `attempt` unless an earlier one has failed: then throws its text again.
template <class Attempt>
auto try_once(DecodeFailures& failures, DecodeStage stage, const Attempt& attempt) {
  if (const auto known = failures.failure(stage)) throw std::runtime_error(*known);
  try {
    return attempt();
  } catch (const std::exception& failure) {
    rethrow_machine_failure();
    failures.remember(stage, failure.what());
    throw;
  }
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
  failures_.clear();
}

SharedFailures ItemCaches::failures_of(const ContentSignature& signature) {
  auto failures = std::make_shared<DecodeFailures>();
  if (!signature.valid) return failures;
  const std::lock_guard lock(cache_mutex_);
  return failures_.insert(signature.key, std::move(failures));
}

std::shared_ptr<SharedSource> ItemCaches::open_raster_source(const ContentSignature& signature,
                                                             const std::string& path) {
  if (signature.valid) {
    const std::lock_guard lock(cache_mutex_);
    if (auto open = find_or_null(sources_, signature.key)) return open;
  }
  auto source = std::make_shared<SharedSource>();
  const SharedFailures failures = failures_of(signature);
  source->reader = try_once(*failures, DecodeStage::open_source,
                            [&] { return make_raster_source(path, failures, threads_); });
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
  if (!signature.valid) return std::make_shared<const LoadedImage>(load_image(path, threads_));
  const auto alone = image_gate_.enter(signature.key);
  {
    const std::lock_guard lock(cache_mutex_);
    if (auto loaded = find_or_null(images_, signature.key)) return loaded;
  }
  auto image = try_once(*failures_of(signature), DecodeStage::load,
                        [&] { return std::make_shared<const LoadedImage>(load_image(path, threads_)); });
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
