#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "compose/strip_compositor.h"
#include "output/hoson_writer.h"

namespace nvo {

/// What a run measured of itself. Durations are nanoseconds of a steady clock.
struct StreamRipProfile {
  bool streaming = false;
  bool parallel_channels = false;
  std::uint32_t src_width_px = 0, src_height_px = 0;
  std::uint32_t dev_width_px = 0, dev_height_px = 0;
  std::uint64_t strip_count = 0;
  std::uint64_t source_strip_pixels = 0;    ///< source width x composed rows, over all strips
  std::uint64_t device_channel_pixels = 0;  ///< dots, over all strips and channels
  std::uint64_t total = 0;
  std::uint64_t compose = 0, occupancy = 0, choke_context = 0, full_buffer_copy = 0;
  std::array<std::uint64_t, 5> rip_ch{};
  std::uint64_t writer = 0, finalize = 0;
  std::uint64_t compose_calls = 0;
  CompositorCounters compositor;
  HosonWriterCounters writer_counters;
};

/// Whether `NVO_RIP_PROFILE` asks for a profile.
bool profile_enabled();

/// One line of the log, and one JSON line appended to the file that `NVO_RIP_PROFILE_JSONL` names.
void report_profile(const StreamRipProfile& profile, const std::string& output_path);

}  // namespace nvo
