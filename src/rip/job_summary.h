#pragma once

#include <optional>

#include "config/icc_settings.h"
#include "image/image_types.h"
#include "plan/rip_job_options.h"
#include "plan/sheet_geometry.h"
#include "rip/sheet_run.h"

namespace nvo {

/// A job as it is about to be printed: what was asked for and what followed from it.
struct JobSummary {
  const RipJobOptions& options;
  const PrintMode& mode;
  const ChokePlan& choke;
  const IccSettings& icc;  ///< the record that colour conversion uses
  const SheetLayout& sheet;
  SheetSize size;
};

/// Logs the job for people at INFO, some lines that begin "Job: ". `art` is what the opened file of a sheet
/// with one image says of itself; nothing where it can't be opened, which composition tells.
void log_job_summary(const JobSummary& job, const std::optional<ImageMeta>& art);

}  // namespace nvo
