#pragma once

#include <cstdint>
#include <vector>

#include "screen/mask_cache.h"

namespace nvo {

/// Seed of mask `index` (counted from 0). All arithmetic wraps.
std::uint64_t mask_seed(std::int32_t index);

/// Fills `out` (tile_w x tile_h bytes, row-major) with a blue-noise threshold mask by void-and-cluster (R.
/// Ulichney, "The void-and-cluster method for dither array generation", 1993) on a torus: `sigma`, in dots,
/// is that of the Gaussian energy kernel, and every byte value occurs about equally often. Deterministic in
/// its arguments, on any machine. `seed` drives an xorshift generator and must not be 0. On tiles narrower
/// than the kernel the relaxation may never come to rest. Throws `invalid_argument` for parameters out of
/// range.
void generate_mask(std::uint8_t* out, std::int32_t tile_w, std::int32_t tile_h, std::uint64_t seed,
                   float sigma);

/// All masks of a set, in index order, one hardware thread a mask or as many as the system gives; announces
/// them in the log from the calling thread. Throws as `generate_mask` does.
std::vector<std::uint8_t> generate_all_masks(const MaskParams& params);

}  // namespace nvo
