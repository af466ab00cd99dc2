#include "rip/strip_order.h"

#include <exception>

#include "compose/item_raster.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/text.h"
#include "image/image_format.h"

namespace nvo {
namespace {

/// What is printed of an image that lies partly beside the sheet is judged by all of its pixels.
bool lies_on_sheet(const ItemPlacement& placement, const StripPlan& strips) {
  return placement.x >= 0 && placement.y >= 0 && placement.x + placement.width <= strips.src_w &&
         placement.y + placement.height <= strips.src_h;
}

bool gives_rows_in_order(const std::string& path) {
  const ImageFormat* format = find_image_format(lower_extension(path));
  if (!format || !format->open_stream) return false;
  const HeldLog unheard;
  try {
    return format->open_stream(path) != nullptr;
  } catch (const std::exception&) {
    rethrow_machine_failure();
    return false;
  }
}

}  // namespace

StripOrder choose_strip_order(const SheetPlan& plan) {
  const auto& items = plan.layout.items;
  const bool may_be_top_down = plan.streaming && !plan.options.always_bottom_up && plan.strips.count > 1 &&
                               items.size() == 1 && !items.front().rotated &&
                               // whether white may be scaled hard is known from the whole image only
                               !plan.options.white_hard() &&
                               lies_on_sheet(place_item(items.front(), plan.strips.src_dpi), plan.strips);
  return may_be_top_down && gives_rows_in_order(items.front().path) ? StripOrder::top_down
                                                                    : StripOrder::bottom_up;
}

}  // namespace nvo
