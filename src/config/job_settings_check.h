#pragma once

#include <string>

#include "config/job_settings.h"

namespace nvo {

/// WARNs of what settings ask for and the job won't have: a print mode that its head doesn't know, inks
/// without a slot, profiles without what they need. `job` is the finished record; `job_mode_id` is the id
/// that the job's file gives, or null, and `icc_prefix` names in the log where its profiles stand.
void warn_of_unmet_settings(const JobSettings& job, const std::string* job_mode_id,
                            const RipSettings& rip_settings, const char* icc_prefix);

}  // namespace nvo
