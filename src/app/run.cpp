#include "app/run.h"

#include <cstdio>
#include <exception>
#include <new>
#include <optional>

#include "app/job_driver.h"
#include "app/output_path.h"
#include "app/progress_line.h"
#include "app/update_policy.h"
#include "config/job_settings.h"
#include "config/rip_settings.h"
#include "core/env_override.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/environment.h"
#include "core/platform/terminal.h"
#include "core/text.h"
#include "output/print_temporary.h"

namespace nvo {
namespace {

void print_line(std::FILE* stream, const std::string& text) {
  std::fputs((escape_controls(text) + "\n").c_str(), stream);
  std::fflush(stream);
}

/// The settings that a job works with carry the job's own mode and sheet.
void adopt_job_values(RipSettings& rip_settings, const JobSettings& job) {
  rip_settings.print_mode_id =
      job.print_mode.id.empty() ? default_print_mode(job.head()).id : job.print_mode.id;
  rip_settings.nesting_gap_in = job.repeated_file_gap_in;
  rip_settings.sheet_width_in = job.sheet_width_in;
  rip_settings.max_length_in = job.max_length_in;
}

constexpr const char* kProgress = "NVO_RIP_PROGRESS";

bool wants_progress_line() {
  return is_environment_true(kProgress) && platform::standard_error_is_terminal();
}
bool wants_progress_feed() {
  return ascii_lower(platform::environment(kProgress).value_or("")) == "json";
}

int run_guarded(const std::string& input_path, const std::string& explicit_output,
                const UpdateService& update_service) {
  RipSettings rip_settings = load_rip_settings();
  const JobSettings job = load_job_settings(rip_settings);

  std::string output_path;
  std::string error;
  bool parent_created = false;
  if (!resolve_output_path(input_path, explicit_output, rip_settings, job, output_path, error,
                           parent_created)) {
    print_line(stderr, "Output path error: " + (error.empty() ? "cannot prepare output path" : error));
    return kExitFailed;
  }
  if (parent_created) {
    const std::string text = "Output path info: explicit output parent directory created.";
    print_line(stdout, text);
    log_info(text);
  }
  log_info("NVO RIP CLI");
  log_info("Input:  ", input_path);
  log_info("Output: ", output_path);

  if (!update_policy_allows_run(update_service)) return kExitUpdateRequired;

  for (const std::string& path : remove_abandoned_prints(output_path))
    log_info("Removed '", path, "', the unfinished print file of a job that was killed.");
  adopt_job_values(rip_settings, job);
  {
    std::optional<ProgressLine> line;
    ProgressFeed feed = standard_error_feed();
    JobCallbacks callbacks;
    if (wants_progress_line()) callbacks = line.emplace(standard_error_terminal()).callbacks();
    if (wants_progress_feed()) callbacks = feed.callbacks();
    run_job(input_path, output_path, rip_settings, job.icc, 0.0f, 0.0f, callbacks, &job, 0.0f,
            !explicit_output.empty());
  }
  try {
    log_info("Done: ", output_path);
  } catch (const std::bad_alloc&) {  // The file stands, whether or not there is memory to say so.
  }
  return kExitDone;
}

/// Where the log goes elsewhere, standard error has the line too: that is where a batch looks. It is also the
/// place where the line stands when there is no memory to log it.
int report_failure(const std::exception& failure) noexcept {
  const char* const text = failure_text(failure);
  bool is_seen = platform::standard_outputs_are_one();
  try {
    log_error("Fatal: ", text);
  } catch (...) {
    is_seen = false;
  }
  if (!is_seen) platform::write_error_line("Fatal: ", text);
  return kExitFailed;
}

}  // namespace

int run(const std::string& input_path, const std::string& output_path, const UpdateService& update_service) {
  try {
    Logger::instance().set_level(LogLevel::info);
    Logger::instance().begin_job();
    return run_guarded(input_path, output_path, update_service);
  } catch (const std::exception& failure) {
    return report_failure(failure);
  }
}

}  // namespace nvo
