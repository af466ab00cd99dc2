#pragma once

#include <cstdint>

namespace nvo {

/// Where a strip lies on both grids, and the halo around it.
struct StripPlace {
  std::uint32_t src_y = 0, src_rows = 0;  ///< the strip's own source rows
  std::uint32_t first = 0, rows = 0;      ///< source rows with the halo
  std::uint32_t dev_y = 0, dev_rows = 0;  ///< device rows that the strip delivers
  std::uint32_t crop_top = 0;             ///< device rows of the upper halo
  std::uint32_t all_dev_rows = 0;         ///< device rows with both halos

  bool has_halo() const { return first != src_y || rows != src_rows; }
};

/// The order in which strips are worked on. The print file begins with the sheet's last row, but the place of
/// each row is known from its number.
enum class StripOrder : std::uint8_t {
  bottom_up,  ///< as the file has them
  top_down,   ///< as most compressed formats have their rows
};

/// A sheet on its two grids, and how it is cut into strips of source rows. Strip 0 is at the sheet's top.
struct StripPlan {
  std::uint32_t src_dpi = 0, x_dpi = 0, y_dpi = 0;
  std::uint32_t src_w = 0, src_h = 0;  ///< source pixels
  std::uint32_t dev_w = 0, dev_h = 0;  ///< device dots
  std::uint32_t strip_rows = 0;        ///< source rows of a strip; the last one may have fewer
  std::uint32_t count = 0;             ///< strips
  std::uint32_t halo = 0;              ///< source rows that a strip needs above and below its own

  /// The strip that is the `stage`-th to be worked on, counted from 0.
  std::uint32_t at_stage(std::uint32_t stage, StripOrder order) const {
    return order == StripOrder::top_down ? stage : count - 1 - stage;
  }
  /// Throws as `device_row`.
  StripPlace place(std::uint32_t strip) const;
  /// The most rows of each kind that any strip has.
  StripPlace largest() const;
};

}  // namespace nvo
