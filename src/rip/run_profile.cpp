#include "rip/run_profile.h"

#include <iomanip>
#include <sstream>
#include <vector>

#include "core/env_override.h"
#include "core/log.h"
#include "core/platform/environment.h"
#include "core/platform/file.h"
#include "core/text.h"

namespace nvo {
namespace {

constexpr double kNanosecondsPerMillisecond = 1'000'000.0;

enum class Unit { count, milliseconds };
enum class Reports { both, json_only };

struct Entry {
  const char* name;
  Unit unit;
  std::uint64_t value;
  Reports reports = Reports::both;
};

/// The numbers of both reports, in their common order.
std::vector<Entry> stage_entries(const StreamRipProfile& p) {
  constexpr Unit kMs = Unit::milliseconds;
  constexpr Unit kCount = Unit::count;
  const CompositorCounters& c = p.compositor;
  const HosonWriterCounters& w = p.writer_counters;
  return {
      {"source_strip_pixels", kCount, p.source_strip_pixels},
      {"device_channel_pixels", kCount, p.device_channel_pixels},
      {"total_ms", kMs, p.total},
      {"compose_ms", kMs, p.compose},
      {"occupancy_ms", kMs, p.occupancy},
      {"choke_context_ms", kMs, p.choke_context},
      {"full_buffer_copy_ms", kMs, p.full_buffer_copy},
      {"rip_ch0_ms", kMs, p.rip_ch[0]},
      {"rip_ch1_ms", kMs, p.rip_ch[1]},
      {"rip_ch2_ms", kMs, p.rip_ch[2]},
      {"rip_ch3_ms", kMs, p.rip_ch[3]},
      {"rip_ch4_ms", kMs, p.rip_ch[4]},
      {"writer_ms", kMs, p.writer},
      {"finalize_ms", kMs, p.finalize},
      {"compose_calls", kCount, p.compose_calls, Reports::json_only},
      {"comp_items_seen", kCount, c.items_seen},
      {"comp_items_blitted", kCount, c.items_blitted},
      {"comp_lowmem_items", kCount, c.lowmem_items},
      {"comp_full_load_items", kCount, c.full_load_items},
      {"comp_pixels_written", kCount, c.pixels_written},
      {"comp_blit_ms", kMs, c.blit_ns},
      {"comp_source_open_ms", kMs, c.source_open_ns},
      {"comp_source_read_ms", kMs, c.source_read_ns},
      {"comp_image_load_ms", kMs, c.image_load_ns},
      {"comp_icc_init_ms", kMs, c.icc_init_ns},
      {"comp_color_convert_ms", kMs, c.color_convert_ns},
      {"comp_white_classify_ms", kMs, c.white_classify_ns},
      {"comp_white_classify_hits", kCount, c.white_classify_hits},
      {"comp_white_classify_misses", kCount, c.white_classify_misses},
      {"comp_white_underbase_ms", kMs, c.white_underbase_ns},
      {"writer_rows", kCount, w.rows},
      {"writer_bytes", kCount, w.bytes},
      {"writer_pack_ms", kMs, w.pack_ns},
      {"writer_file_ms", kMs, w.file_ns},
  };
}

const char* path_name(const StreamRipProfile& p) {
  return p.streaming ? "streaming" : "full_buffer";
}
const char* bool_name(bool value) {
  return value ? "true" : "false";
}

double milliseconds(std::uint64_t ns) {
  return static_cast<double>(ns) / kNanosecondsPerMillisecond;
}

void log_profile(const StreamRipProfile& p, const std::string& output_path) {
  std::ostringstream line;
  line << std::fixed << std::setprecision(3) << "StreamRip profile: path=" << path_name(p)
       << " parallel_channels=" << bool_name(p.parallel_channels) << " output=\"" << output_path
       << "\" src_px=" << p.src_width_px << "x" << p.src_height_px << " dev_px=" << p.dev_width_px << "x"
       << p.dev_height_px << " strips=" << p.strip_count;
  for (const Entry& entry : stage_entries(p)) {
    if (entry.reports == Reports::json_only) continue;
    line << " " << entry.name << "=";
    if (entry.unit == Unit::milliseconds)
      line << milliseconds(entry.value);
    else
      line << entry.value;
  }
  log_info(line.str());
}

std::string json_line(const StreamRipProfile& p, const std::string& output_path) {
  std::ostringstream line;
  line << "{\"schema_version\":1,\"kind\":\"stream_rip_profile\",\"output_path\":\""
       << escape_json(output_path, "btnfr") << "\",\"path\":\"" << path_name(p)
       << "\",\"parallel_channels\":" << bool_name(p.parallel_channels)
       << ",\"src_width_px\":" << p.src_width_px << ",\"src_height_px\":" << p.src_height_px
       << ",\"dev_width_px\":" << p.dev_width_px << ",\"dev_height_px\":" << p.dev_height_px
       << ",\"strip_count\":" << p.strip_count;
  for (const Entry& entry : stage_entries(p)) {
    line << ",\"" << entry.name << "\":";
    if (entry.unit == Unit::milliseconds)
      line << milliseconds(entry.value);
    else
      line << entry.value;
  }
  line << "}\n";
  return line.str();
}

}  // namespace

bool profile_enabled() {
  return is_environment_true("NVO_RIP_PROFILE");
}

void report_profile(const StreamRipProfile& profile, const std::string& output_path) {
  log_profile(profile, output_path);
  const auto jsonl_path = platform::environment("NVO_RIP_PROFILE_JSONL");
  if (!jsonl_path || jsonl_path->empty()) return;
  platform::File file;
  if (file.open_append(*jsonl_path) != 0) {
    log_warn("StreamRip profile: cannot open NVO_RIP_PROFILE_JSONL path: ", *jsonl_path);
    return;
  }
  const std::string line = json_line(profile, output_path);
  int error = file.write_all(line.data(), line.size());
  if (const int closed = file.close(); error == 0) error = closed;
  if (error != 0)
    log_warn("StreamRip profile: cannot write the line of this run (", line.size(),
             " bytes) to NVO_RIP_PROFILE_JSONL path: ", *jsonl_path, ": ", platform::error_text(error));
}

}  // namespace nvo
