#include "image/image_meta_probe.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <unordered_map>

#include "core/fnv1a.h"
#include "core/platform/paths.h"
#include "core/text.h"
#include "image/content_hash.h"
#include "image/image_format.h"

namespace nvo {
namespace {

constexpr std::size_t kCacheLimit = 64;

/// What must stay the same for a cached probe to hold.
struct ImageIdentity {
  std::uint64_t size = 0;
  std::int64_t mtime = 0;  ///< whole seconds of the system clock
  std::string content_signature;
  bool valid = false;

  bool matches(const ImageIdentity& other) const {
    return valid && other.valid && size == other.size && mtime == other.mtime &&
           content_signature == other.content_signature;
  }
};

ImageIdentity identify(const std::string& normalized_path) {
  const auto path = platform::to_path(normalized_path);
  std::error_code error;
  if (!std::filesystem::exists(path, error)) return {};

  ImageIdentity identity;
  identity.size = std::filesystem::file_size(path, error);  // all ones on failure
  if (error) return identity;
  const auto time = std::filesystem::last_write_time(path, error);
  if (error || !content_hash(normalized_path, identity.content_signature, nullptr)) return {};
  const auto since_epoch = std::chrono::file_clock::to_sys(time).time_since_epoch();
  identity.mtime = std::chrono::duration_cast<std::chrono::seconds>(since_epoch).count();
  identity.valid = true;
  return identity;
}

/// The process's probes, least recently used first out. All functions lock.
class ProbeCache {
 public:
  /// Counts a hit or a miss.
  bool find(const std::string& key, const ImageIdentity& identity, ImageProbeInfo& info) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(key);
    if (found == entries_.end() || !found->second.identity.matches(identity)) {
      ++stats_.misses;
      return false;
    }
    ++stats_.hits;
    found->second.tick = ++tick_;
    info = found->second.info;
    return true;
  }

  void store(const std::string& key, const ImageIdentity& identity, const ImageProbeInfo& info) {
    const std::lock_guard lock(mutex_);
    ++stats_.probes[static_cast<std::size_t>(info.kind)];
    if (!identity.valid) {
      entries_.erase(key);
      return;
    }
    entries_[key] = {identity, info, ++tick_};
    while (entries_.size() > kCacheLimit)
      entries_.erase(std::ranges::min_element(entries_, {}, [](const auto& e) { return e.second.tick; }));
  }

  void forget(const std::string& key) {
    const std::lock_guard lock(mutex_);
    entries_.erase(key);
  }

  ImageProbeStats stats() {
    const std::lock_guard lock(mutex_);
    return stats_;
  }

 private:
  struct Entry {
    ImageIdentity identity;
    ImageProbeInfo info;
    std::uint64_t tick = 0;
  };

  std::mutex mutex_;
  std::unordered_map<std::string, Entry, Fnv1aHash> entries_;
  std::uint64_t tick_ = 0;
  ImageProbeStats stats_;
};

ProbeCache& probe_cache() {
  static ProbeCache cache;
  return cache;
}

/// Looks into the file itself; fills all but the names.
void probe_file(ImageProbeInfo& info) {
  const ImageFormat* format = find_file_format(info.path);
  if (!format) throw std::runtime_error("ImageMetaProbe: unsupported image extension: " + info.path);

  const ImageExtent extent = format->probe(info.path);
  if (extent.width == 0 || extent.height == 0)
    throw std::runtime_error("ImageMetaProbe: empty image metadata for " + info.path);
  static_cast<ImageRemarks&>(info) = extent;
  if (!(extent.dpi_x > 0.0f) && info.resolution_source == ResolutionSource::file)
    info.resolution_source = ResolutionSource::assumed;
  info.kind = format->kind;
  info.width = extent.width;
  info.height = extent.height;
  info.dpi_x = extent.dpi_x > 0.0f ? extent.dpi_x : format->default_dpi;
  info.dpi_y = extent.dpi_y > 0.0f ? extent.dpi_y : info.dpi_x;
  info.effective_dpi = std::max(info.dpi_x, info.dpi_y);
}

}  // namespace

ImageProbeInfo probe_image(const std::string& path) {
  ImageProbeInfo info;
  set_path_texts(path, info);
  const std::string key = info.normalized_path;
  const ImageIdentity identity = identify(key);
  if (probe_cache().find(key, identity, info)) return info;

  try {
    probe_file(info);
  } catch (...) {
    probe_cache().forget(key);
    throw;
  }
  probe_cache().store(key, identity, info);
  return info;
}

ImageProbeStats image_probe_stats() {
  return probe_cache().stats();
}

}  // namespace nvo
