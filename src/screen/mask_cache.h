#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/large_vector.h"

namespace nvo {

inline constexpr float kMaxMaskSigma = 64.0f;

/// What a set of masks is made from.
struct MaskParams {
  std::uint32_t tile_w = 1024, tile_h = 1024;
  std::uint32_t n_masks = 6;
  float sigma = 1.5f;  ///< of the Gaussian energy kernel, in dots
  std::uint32_t version = 5;
  bool operator==(const MaskParams&) const = default;
};

/// Size of all masks of a set, or nothing beyond the largest set that is kept (512 MiB).
std::optional<std::uint64_t> mask_set_bytes(const MaskParams& params);

/// The folders where cache files are looked for, in this order. `cache_dir` (UTF-8) names the one folder to
/// use; empty selects `bn_cache` beside the executable, then in the per-user folder of the program.
std::vector<std::filesystem::path> mask_cache_folders(const std::string& cache_dir);

/// Where an installation may bring masks along: `share/nvo_rip/bn_cache` beside the folder of the executable.
/// It is looked at last and never written. Empty where the system can't tell.
std::filesystem::path mask_share_folder();

/// The blue-noise threshold masks of a run, loaded from a cache file or generated and saved. Read-only once
/// constructed, so any thread may read it.
class MaskCache {
 public:
  /// Looks in the folders of `mask_cache_folders(cache_dir)` and, if that names none, in `mask_share_folder`.
  /// Throws `invalid_argument` for bad parameters, and `system_error` where the system fails to read a file
  /// that is there. What a file holds, or that masks can't be saved, never fails it.
  MaskCache(const MaskParams& params, const std::string& cache_dir);

  /// Loads from the first of `folders`, then of `share_folder` if not empty, that holds a fitting file;
  /// otherwise generates the masks and saves them in the first of `folders` that takes them. A file of the
  /// default parameters fits only if its masks are those that the generator makes.
  MaskCache(const MaskParams& params, const std::vector<std::filesystem::path>& folders,
            const std::filesystem::path& share_folder = {});

  bool valid() const { return valid_; }
  std::uint32_t tile_w() const { return params_.tile_w; }
  std::uint32_t tile_h() const { return params_.tile_h; }
  std::uint32_t mask_count() const { return params_.n_masks; }

  /// The mask byte of a channel at absolute device coordinates; each of the three is taken modulo its range.
  /// 0 where no valid mask is held.
  std::uint8_t at(std::int32_t channel, std::int64_t x, std::int64_t y) const;

  /// One tile row (`tile_w` bytes) of a channel's mask for device row `y`, both modulo their range; null
  /// where no valid mask is held.
  const std::uint8_t* row(std::uint32_t channel, std::uint64_t y) const;

 private:
  MaskParams params_;
  LargeVector<std::uint8_t> bytes_;  ///< masks in index order, each row-major
  bool valid_ = false;
};

}  // namespace nvo
