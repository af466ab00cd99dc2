#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// Whether `add_up_row` knows pixels of so many 8-bit samples.
bool can_add_up(std::size_t samples_per_pixel);

/// Undoes horizontal differencing (TIFF 6.0, section 14) of one row of 8-bit samples: each sample of `to` is
/// the sum, modulo 256, of those of its channel in `from` up to it. `from` and `to` may be the same row.
void add_up_row(const std::uint8_t* from, std::uint8_t* to, std::size_t pixels,
                std::size_t samples_per_pixel);

}  // namespace nvo
