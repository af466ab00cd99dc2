#pragma once

#include "rip/sheet_plan.h"

namespace nvo {

/// Top-down where strips can be composed while their art is decoded: a sheet of several strips with one
/// upright image on it, whose file gives its rows from the top without being held whole. Looks at the file's
/// header. Logs nothing; a file that can't be opened is told of when it is composed. Throws failures of the
/// machine only.
StripOrder choose_strip_order(const SheetPlan& plan);

}  // namespace nvo
