#pragma once

#include <cstdint>
#include <functional>

#include "config/icc_settings.h"
#include "config/print_modes.h"
#include "core/threads/thread_plan.h"
#include "plan/choke_plan.h"
#include "plan/rip_job_options.h"
#include "plan/sheet_geometry.h"
#include "plan/strip_plan.h"

namespace nvo {

enum class SheetSide : std::uint8_t { none, width, height };

/// All that a job comes to before a file is opened, a thread is started or memory is taken for it.
struct SheetPlan {
  RipJobOptions options;
  SheetLayout layout;  ///< items where they are printed, the canvas pad included
  PrintMode mode;
  IccSettings icc;  ///< the profiles that colour conversion uses
  ChokePlan choke;
  float pad_in = 0.0f;  ///< canvas pad on each side
  SheetSize size;
  SheetSide missing = SheetSide::none;  ///< of an empty sheet; nothing that follows is planned then
  StripPlan strips;
  ThreadPlan threads;
  bool parallel_channels = false;  ///< the inks are screened side by side
  bool streaming = false;          ///< strip by strip; else the whole sheet at once
  /// Streaming: the order in which strips are worked on. It follows from the art, see `choose_strip_order`;
  /// until somebody asks that, it is that of the file.
  StripOrder order = StripOrder::bottom_up;
  /// Streaming: rows of the bands in which a strip is screened and written.
  std::uint32_t band_rows = 0;
  /// Bytes of the sheet's planes and buffers, at most, with one row worker an ink. Masks, which all jobs
  /// have, and what decoding holds of the art are not in it.
  std::uint64_t memory_bytes = 0;
  std::uint32_t row_bytes = 0;    ///< of a device row in the print file, all slots
  std::uint64_t print_bytes = 0;  ///< of all rows in the print file
};

/// Bands of a streaming run that are screened, waiting or written at a time.
inline constexpr std::uint32_t kBandsInFlight = 8;

/// How far a plan has come.
enum class PlanStage {
  choke,   ///< mode, profiles and choke are settled
  canvas,  ///< items are placed and padded
  grids,   ///< both grids and the number of strips are known
  threads,
};
/// Is told of each stage before the next one begins, which may refuse the job. Not all fields are set yet.
using PlanWatcher = std::function<void(PlanStage, const SheetPlan&)>;

/// Plans a job. Follows from the arguments, the machine's number of threads and the environment's settings
/// for them, and changes nothing. Throws what refuses the job: `invalid_argument` for resolutions and strips
/// of 0, otherwise `runtime_error`, `length_error` or `overflow_error`, for sizes and positions that aren't
/// numbers, for sheets beyond 32 bits, and for what could not be held in memory or screened exactly.
SheetPlan plan_sheet(const RipJobOptions& options, SheetLayout layout, const PlanWatcher& reached = {});

}  // namespace nvo
