#pragma once

#include <string>
#include <vector>

#include "compose/strip_compositor.h"

namespace nvo {

/// Looks at a print that is about to take its name. Each image of which nothing or not all was printed, and
/// each whose white looks inverted, is named in a WARN with the reason. `any_drop` tells whether the print
/// has a dot at all. Throws `runtime_error` where art is missing and `NVO_RIP_STRICT` is set.
void review_print(const std::vector<ItemReport>& items, bool any_drop, std::uint32_t src_dpi);

/// The same for a sheet that has no size, so that no file is written.
void review_empty_sheet(const SheetLayout& sheet, const char* what_is_missing);

}  // namespace nvo
