#include "config/job_settings.h"

namespace nvo {

JobSettings default_job_settings(const RipSettings& rip_settings, const IccSettings& icc_settings) {
  JobSettings job;
  job.icc = icc_settings;
  job.print_mode = default_print_mode(job.head());
  if (const PrintMode* mode = find_print_mode(job.head(), rip_settings.print_mode_id)) {
    job.print_mode = *mode;
  } else if (const PrintMode* legacy = find_legacy_print_mode(rip_settings.print_mode_id)) {
    job.print_mode = resolve_print_mode(job.head(), *legacy);
  }
  job.output_channel_map = default_channel_map(job.head());
  job.repeated_file_gap_in = JobSettings::kGapIn.cut(rip_settings.nesting_gap_in);
  job.sheet_width_in = JobSettings::kSheetLengthIn.cut(rip_settings.sheet_width_in);
  job.max_length_in = JobSettings::kSheetLengthIn.cut(rip_settings.max_length_in);
  return job;
}

}  // namespace nvo
