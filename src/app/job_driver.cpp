#include "app/job_driver.h"

#include <algorithm>

#include "core/log.h"
#include "image/image_meta_probe.h"

namespace nvo {
namespace {

constexpr float kFineSourceDpi = 350.0f;
constexpr std::uint32_t kFineLayoutDpi = 600;
constexpr std::uint32_t kNormalLayoutDpi = 300;

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
  options.x_dpi = job.print_mode.x_dpi;
  options.y_dpi = job.print_mode.y_dpi;
  options.passes = job.print_mode.passes;
  options.adaptive_white_choke = job.white_choke_algorithm == WhiteChokeSetting::adaptive;
  options.adaptive_white_choke_min_width_dots = std::clamp(job.white_choke_adaptive_min_width_dots, 1, 16);
  options.adaptive_white_choke_protect_light = job.white_choke_adaptive_protect_light_enabled;
  options.adaptive_white_choke_lightness_threshold =
      std::clamp(job.white_choke_adaptive_lightness_threshold, 0.0f, 100.0f);
  options.performance = performance;
  options.icc = job.icc;
  options.device_board = job.head().device_board;
  options.print_head = job.head().print_head;
  options.print_mode = job.print_mode;
  options.job_icc = job.icc;
  options.output_channel_map = job.output_channel_map;
  options.nesting_gap_in = job.repeated_file_gap_in;
  options.sheet_width_setting_in = job.sheet_width_in;
  options.max_length_in = job.max_length_in;
  options.sheet_margin_left_in = job.sheet_margin_left_in;
  options.sheet_margin_right_in = job.sheet_margin_right_in;
  options.sheet_margin_top_in = job.sheet_margin_top_in;
  options.sheet_margin_bottom_in = job.sheet_margin_bottom_in;
  options.sheet_placement_mode = job.sheet_placement_mode;
  options.white_generation_mode = job.white_generation_mode;
  options.white_choke_enabled = job.white_choke_enabled;
  options.white_choke_amount_px_at_300dpi = job.white_choke_amount_px_at_300dpi;
  options.white_choke_algorithm = job.white_choke_algorithm;
  options.white_choke_adaptive_min_width_dots = job.white_choke_adaptive_min_width_dots;
  options.white_choke_adaptive_protect_light_enabled = job.white_choke_adaptive_protect_light_enabled;
  options.white_choke_adaptive_lightness_threshold = job.white_choke_adaptive_lightness_threshold;
  options.color_resampling_mode = job.color_resampling_mode;
  options.color_resampling_linear_light = job.color_resampling_linear_light;
  options.white_resampling_mode = job.white_resampling_mode;
  options.white_ink_limit_enabled = job.white_ink_limit_enabled;
  options.total_ink_budget_pct = job.total_ink_budget_pct;
  options.max_white_pct = job.max_white_pct;
  options.min_white_pct = job.min_white_pct;
  return options;
}

std::uint32_t source_layout_dpi(const std::vector<std::string>& inputs) {
  const bool any_fine = std::any_of(inputs.begin(), inputs.end(), [](const std::string& path) {
    return probe_image(path).effective_dpi > kFineSourceDpi;
  });
  return any_fine ? kFineLayoutDpi : kNormalLayoutDpi;
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
