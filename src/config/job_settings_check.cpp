#include "config/job_settings_check.h"

#include <algorithm>
#include <string_view>

#include "core/log.h"

namespace nvo {
namespace {

std::string used_mode(const JobSettings& job) {
  return "; using '" + job.print_mode.id + "' (" + std::to_string(job.print_mode.x_dpi) + "x" +
         std::to_string(job.print_mode.y_dpi) + " dpi)";
}

bool same_resolution(const PrintMode& a, const PrintMode& b) {
  return a.x_dpi == b.x_dpi && a.y_dpi == b.y_dpi;
}

/// True where the id has chosen the job's mode, be it by its resolution alone.
bool warn_of_mode_id(const JobSettings& job, const std::string& id, const char* prefix) {
  if (find_print_mode(job.head(), id)) return true;
  const std::string_view head = print_head_name(job.head());
  const PrintMode* of_i3200 = find_legacy_print_mode(id);
  if (!of_i3200) {
    log_warn(prefix, ": unknown print_mode_id '", id, "' for print_head ", head, used_mode(job));
  } else if (!same_resolution(*of_i3200, job.print_mode)) {
    log_warn(prefix, ": print_mode_id '", id, "' is a mode of the i3200, and print_head ", head,
             " has none of its resolution", used_mode(job));
  }
  return of_i3200 != nullptr;
}

void warn_of_modes(const JobSettings& job, const std::string* job_mode_id, const RipSettings& rip_settings) {
  if (job_mode_id && warn_of_mode_id(job, *job_mode_id, "JobSettings")) return;
  const std::string& id = rip_settings.print_mode_id;
  if (id == RipSettings().print_mode_id) return;  // nobody has asked for it
  if (find_legacy_print_mode(id))
    warn_of_mode_id(job, id, "RipSettings");
  else
    log_warn("RipSettings: unknown print_mode_id '", id, "', settings.json takes modes of the i3200",
             used_mode(job));
}

void warn_of_slots(const JobSettings& job) {
  const std::vector<std::uint32_t>& slots = job.output_channel_map;
  const std::vector<std::uint32_t> usual = default_channel_map(job.head());
  const auto is_printed = [&](std::uint32_t ink) { return std::ranges::find(slots, ink) != slots.end(); };
  std::vector<std::uint32_t> left_out;
  for (std::uint32_t ink = 0; ink < kChannelCount; ++ink)
    if (!is_printed(ink)) left_out.push_back(ink);
  if (!left_out.empty())
    log_warn("JobSettings: output_channel_map ", channel_map_text(slots), " has no slot for ",
             channel_map_text(left_out), ": not printed");
  for (std::size_t i = 0; i < std::min(slots.size(), usual.size()); ++i)
    if (slots[i] == kChannelOff && usual[i] != kChannelOff && is_printed(usual[i]))
      log_warn("JobSettings: output_channel_map ", channel_map_text(slots), " switches slot ", i + 1,
               " off, which prints ", channel_name(usual[i]), " by default");
}

void warn_of_curves(const RipSettings& rip_settings) {
  const auto curves = channel_curves(rip_settings);
  for (std::uint32_t ink = 0; ink < kChannelCount; ++ink)
    if (std::ranges::all_of(curves[ink], [](float value) { return value <= 0.0f; }))
      log_warn("RipSettings: the ink curve of ", channel_name(ink), " gives no ink at all: not printed");
}

void warn_of_profiles(const IccSettings& icc, const char* prefix) {
  const bool any =
      !icc.input_rgb_profile.empty() || !icc.input_cmyk_profile.empty() || !icc.output_profile.empty();
  if (icc.enabled && icc.output_profile.empty())
    log_warn(prefix, ": profiles are enabled, but output_profile is empty; colour is printed without any");
  else if (!icc.enabled && any)
    log_warn(prefix, ": profiles are named, but not enabled; colour is printed without any");
}

}  // namespace

void warn_of_unmet_settings(const JobSettings& job, const std::string* job_mode_id,
                            const RipSettings& rip_settings, const char* icc_prefix) {
  warn_of_modes(job, job_mode_id, rip_settings);
  warn_of_slots(job);
  warn_of_curves(rip_settings);
  warn_of_profiles(job.icc, icc_prefix);
}

}  // namespace nvo
