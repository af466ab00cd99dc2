#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "core/checked.h"

namespace nvo {

/// How a file can fail: a row source doesn't open, or finds that the whole image can't be decoded; the loader
/// gives up.
enum class DecodeStage { open_source, whole_image, load };

/// What attempts on one state of one file have ended in, so that the next strip that needs it neither decodes
/// up to the same damage nor reports another text. Shared by all who read that file; any thread.
class DecodeFailures {
 public:
  std::optional<std::string> failure(DecodeStage stage) const {
    const std::lock_guard lock(mutex_);
    return texts_[static_cast<std::size_t>(stage)];
  }
  void remember(DecodeStage stage, std::string text) {
    const std::lock_guard lock(mutex_);
    texts_[static_cast<std::size_t>(stage)] = std::move(text);
  }

  /// Rows above the first damage, for decoders that start at the top; all there can be while none is known.
  std::uint32_t sound_rows() const {
    const std::lock_guard lock(mutex_);
    return sound_rows_;
  }
  void remember_damage_below(std::uint32_t rows) {
    const std::lock_guard lock(mutex_);
    sound_rows_ = std::min(sound_rows_, rows);
  }

 private:
  mutable std::mutex mutex_;
  std::array<std::optional<std::string>, 3> texts_;  // by stage
  std::uint32_t sound_rows_ = kMaxU32;
};

}  // namespace nvo
