#pragma once

#include <optional>

#include "image/image_types.h"
#include "rip/sheet_plan.h"

namespace nvo {

/// Logs a job that is about to be printed, for people at INFO, some lines that begin "Job: ". `art` is what
/// the opened file of a sheet with one image says of itself; nothing where it can't be opened, which
/// composition tells.
void log_job_summary(const SheetPlan& plan, const std::optional<ImageMeta>& art);

}  // namespace nvo
