#include "plan/strip_plan.h"

#include <algorithm>
#include <stdexcept>

#include "plan/sheet_geometry.h"

namespace nvo {

StripPlace StripPlan::place(std::uint32_t strip) const {
  const auto to_device = [this](std::uint32_t source_row) {
    return device_row(source_row, src_h, src_dpi, y_dpi);
  };
  StripPlace place;
  place.src_y = strip * strip_rows;
  place.src_rows = std::min(src_h - place.src_y, strip_rows);
  const std::uint32_t end = place.src_y + place.src_rows;
  place.first = place.src_y > halo ? place.src_y - halo : 0;
  const std::uint32_t last =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{end} + halo, src_h));
  place.rows = last - place.first;
  place.dev_y = to_device(place.src_y);
  place.dev_rows = to_device(end) - place.dev_y;
  place.crop_top = place.dev_y - to_device(place.first);
  place.all_dev_rows = to_device(last) - to_device(place.first);
  if (place.crop_top > place.all_dev_rows || place.dev_rows > place.all_dev_rows - place.crop_top)
    throw std::runtime_error("StreamRip: invalid DropMap crop rows");
  return place;
}

StripPlace StripPlan::largest() const {
  StripPlace largest;
  for (std::uint32_t strip = 0; strip < count; ++strip) {
    const StripPlace here = place(strip);
    largest.rows = std::max(largest.rows, here.rows);
    largest.dev_rows = std::max(largest.dev_rows, here.dev_rows);
    largest.all_dev_rows = std::max(largest.all_dev_rows, here.all_dev_rows);
  }
  return largest;
}

}  // namespace nvo
