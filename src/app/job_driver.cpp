#include "app/job_driver.h"

#include <algorithm>

#include "core/log.h"
#include "image/image_meta_probe.h"

namespace nvo {
namespace {

constexpr float kFineSourceDpi = 350.0f;
constexpr std::uint32_t kFineLayoutDpi = 600;

/// Registers a callback with the log for the span of a job.
class LogSink {
 public:
  explicit LogSink(const JobCallbacks& callbacks) {
    if (callbacks.use_log_sink && callbacks.log) id_ = Logger::instance().add_sink(callbacks.log);
  }
  ~LogSink() {
    if (id_ != 0) Logger::instance().remove_sink(id_);
  }
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;

 private:
  int id_ = 0;
};

}  // namespace

RipJobOptions job_options(const JobSettings& job, const RipPerformance& performance) {
  RipJobOptions options;
  hand_over<PrintSettings>(job, options);
  hand_over<HeadConfig>(job.head(), options);
  options.performance = performance;
  options.nesting_gap_in = job.repeated_file_gap_in;
  options.sheet_width_setting_in = job.sheet_width_in;
  options.max_length_in = job.max_length_in;
  return options;
}

std::uint32_t source_layout_dpi(const std::vector<std::string>& inputs) {
  const bool any_fine = std::any_of(inputs.begin(), inputs.end(), [](const std::string& path) {
    return probe_image(path).effective_dpi > kFineSourceDpi;
  });
  return any_fine ? kFineLayoutDpi : kDefaultSourceDpi;
}

std::string run_job(const std::string& input_path, const std::string& output_path,
                    const RipSettings& rip_settings, const IccSettings& icc_settings, float width_in,
                    float height_in, const JobCallbacks& callbacks, const JobSettings* job_settings,
                    float sheet_width_in, bool keep_existing) {
  std::string result = output_path;  // while there is memory: the job must not fail once its file stands
  const LogSink sink(callbacks);
  const JobSettings job = job_settings ? *job_settings : default_job_settings(rip_settings, icc_settings);
  StreamRip rip;
  rip.options = job_options(job, rip_settings.rip_performance);
  rip.options.src_dpi = source_layout_dpi({input_path});
  rip.options.keep_existing_output = keep_existing;
  if (sheet_width_in > 0.0f) rip.options.sheet_width_in = sheet_width_in;
  log_info("source-driven layout dpi selected: ", rip.options.src_dpi);
  for (const std::string& note : probe_image(input_path).notes) log_warn("Art '", input_path, "': ", note);
  rip.progress = callbacks.progress;
  rip.cancel = callbacks.cancel;
  rip.rip_single(input_path, output_path, rip_settings, width_in, height_in);
  return result;
}

}  // namespace nvo
