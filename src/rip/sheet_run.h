#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "compose/strip_compositor.h"
#include "core/threads/thread_pool.h"
#include "output/hoson_writer.h"
#include "plan/rip_job_options.h"
#include "rip/run_profile.h"
#include "rip/stream_rip.h"
#include "screen/choke/sheet_choke.h"
#include "screen/rip_engine.h"

namespace nvo {

/// Everything that the two paths of a run share, owned by `StreamRip::run` for its span.
struct SheetRun {
  const StreamRip& job;
  const RipJobOptions& options;
  const std::string& output_path;
  PrintMode mode;
  SheetChoke& choke;
  std::uint32_t src_w = 0, src_h = 0;  ///< source pixels
  std::uint32_t dev_w = 0, dev_h = 0;  ///< device dots
  std::uint32_t strips = 0;
  StripCompositor& compositor;
  RipEngine& engine;
  HosonWriter& writer;
  Executor* pool = nullptr;  ///< null when the channels run one after another
  std::array<RipEngine::ProcessScratch, 2 * kChannelCount> scratch{};  ///< two bands' tasks, five each
  StreamRipProfile profile;
  std::function<void()> announce{};  ///< tells what the job is; called once the file is open, before a pixel

  void report(int stage, int stage_count, float percent, std::string message, std::uint64_t rows = 0) const;
  void throw_if_cancelled() const;
  /// Before the print file takes its name: says which images, or parts of them, are missing from a print with
  /// or without any dot. Throws where `NVO_RIP_STRICT` forbids such a print.
  void require_printed(bool any_drop) const;
};

/// Source rows that a strip of a streaming run needs above and below its own.
std::uint32_t streaming_halo(const RipJobOptions& options, const PrintMode& mode, const SheetChoke& choke);

/// Views of the planes of rows `src_y` and on of the run's sheet; null for those that are too short.
ComposedStrip view_strip(const SheetRun& run, const std::vector<Plane>& planes, const Plane& explicit_white,
                         std::uint32_t src_y, std::uint32_t rows);

/// Strip by strip from the bottom of the sheet to its top.
void run_streaming(SheetRun& run);
/// The whole sheet at once.
void run_full_buffer(SheetRun& run);

}  // namespace nvo
