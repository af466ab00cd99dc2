#pragma once

#include <cstdint>
#include <string_view>

#include "plan/rip_job_options.h"

namespace nvo {

// Two grids matter: the source grid has `src_dpi` pixels per inch on both axes and is what composition
// paints; the device grid has `x_dpi` by `y_dpi` dots per inch and is what is screened and written. Sheet
// sizes are f32 inches; every conversion to pixels checks its limit and throws with a text that begins
// "StreamRip: ".

/// A file's resolution as the sheet takes it: `reference` where the file gives none or is within half a dot
/// of it, a whole number where it is within 0.01 of one, else the value itself.
float normalize_resolution(float file_dpi, float reference_dpi);

/// Width and height in inches of what is placed on the sheet.
struct PlacedSize {
  float width_in = 0.0f, height_in = 0.0f;
};

/// Moves the items to their place on a sheet of configured width, by margins and placement mode; without a
/// configured width they stay. May raise the layout's height.
PlacedSize place_items(SheetLayout& layout, const RipJobOptions& options);

/// Shifts the items by the pad and makes the sheet taller by it on both ends.
void pad_canvas(SheetLayout& layout, float pad_in);

/// Size in inches of the whole sheet, pad included. Throws for sizes and positions that are not finite, and
/// for negative sizes. A width that is not positive means that there is nothing to print.
struct SheetSize {
  float width_in = 0.0f, height_in = 0.0f;
};
SheetSize sheet_size(const SheetLayout& layout, PlacedSize placed, float pad_in, float configured_width_in);

/// Source pixels of a length in inches; a ten-thousandth of a pixel is forgiven to f32 noise.
std::uint32_t source_pixels(float value_in, std::uint32_t src_dpi, std::string_view label);

/// Device dots of an axis of `source_px` source pixels; at least 1.
std::uint32_t device_pixels(std::uint32_t source_px, std::uint32_t src_dpi, std::uint32_t device_dpi,
                            std::string_view label);

/// The device row at which source row `source_row` of `source_rows` begins: the one rule by which strips
/// meet.
std::uint32_t device_row(std::uint32_t source_row, std::uint32_t source_rows, std::uint32_t src_dpi,
                         std::uint32_t y_dpi);

/// Number of strips of `strip_h_px` rows in a sheet of `src_h` rows.
std::uint32_t strip_count(std::uint32_t src_h, std::uint32_t strip_h_px);

/// Source rows that resampling the rows of a strip touches above and below them. `both_hard` says that colour
/// and white are both sampled hard.
std::uint32_t resampling_halo_rows(std::uint32_t src_dpi, std::uint32_t y_dpi, bool both_hard);

}  // namespace nvo
