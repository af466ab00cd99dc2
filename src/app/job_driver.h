#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "config/icc_settings.h"
#include "config/job_settings.h"
#include "config/rip_settings.h"
#include "core/log.h"
#include "plan/rip_job_options.h"
#include "rip/stream_rip.h"

namespace nvo {

/// How a front end watches and stops a job; any of the three may be empty.
struct JobCallbacks {
  std::function<void(LogLevel, const std::string&)> log;
  std::function<void(const RipProgress&)> progress;
  std::function<bool()> cancel;
  bool use_log_sink = true;
};

/// The options of a job, as its settings and the installation's performance block give them.
RipJobOptions job_options(const JobSettings& job, const RipPerformance& performance);

/// Resolution of the source grid for these inputs: 600 if any of them is finer than 350 dots per inch, else
/// 300.
std::uint32_t source_layout_dpi(const std::vector<std::string>& inputs);

/// Rips one image into a print file and returns the file's path. Sizes are inches; a value that is not
/// positive counts as absent. `job_settings` may be null: the defaults then apply. With `keep_existing` the
/// job fails rather than replace a file at `output_path`, whenever that came. Failures leave as exceptions.
/// So many parameters, since this is how front ends call it.
std::string run_job(const std::string& input_path, const std::string& output_path,
                    const RipSettings& rip_settings, const IccSettings& icc_settings, float width_in,
                    float height_in, const JobCallbacks& callbacks, const JobSettings* job_settings,
                    float sheet_width_in, bool keep_existing = false);

}  // namespace nvo
