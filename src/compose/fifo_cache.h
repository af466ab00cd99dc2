#pragma once

#include <cstddef>
#include <iterator>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "core/fnv1a.h"

namespace nvo {

/// A map from texts to values that holds at most `limit` (at least 1) entries: a new one pushes out the
/// oldest. Looking an entry up doesn't make it younger. Locking is the caller's.
template <class Value>
class FifoCache {
 public:
  explicit FifoCache(std::size_t limit) : limit_(limit) {}

  /// Null when there is no such entry. Valid until the next change of the cache.
  const Value* find(std::string_view key) const {
    const auto found = by_key_.find(key);
    return found == by_key_.end() ? nullptr : &found->second->second;
  }

  /// The value that the cache then holds under `key`: the one that was there first, if there was one.
  const Value& insert(const std::string& key, Value value) {
    if (const Value* present = find(key)) return *present;
    oldest_first_.emplace_back(key, std::move(value));
    const auto entry = std::prev(oldest_first_.end());
    by_key_.emplace(entry->first, entry);
    while (oldest_first_.size() > limit_) {
      by_key_.erase(oldest_first_.front().first);
      oldest_first_.pop_front();
    }
    return entry->second;
  }

  void erase(std::string_view key) {
    const auto found = by_key_.find(key);
    if (found == by_key_.end()) return;
    const auto entry = found->second;
    by_key_.erase(found);
    oldest_first_.erase(entry);
  }

  void clear() {
    by_key_.clear();
    oldest_first_.clear();
  }

 private:
  using Entries = std::list<std::pair<const std::string, Value>>;
  std::size_t limit_;
  Entries oldest_first_;
  std::unordered_map<std::string_view, typename Entries::iterator, Fnv1aHash>
      by_key_;  ///< keys live in the list
};

}  // namespace nvo
