#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/print_settings.h"
#include "core/plane_view.h"
#include "core/threads/thread_plan.h"
#include "plan/choke_plan.h"
#include "screen/choke/choke_context.h"
#include "screen/choke/device_choke.h"
#include "screen/column_taps.h"
#include "screen/device_grid.h"
#include "screen/drop_map.h"
#include "screen/mask_cache.h"
#include "screen/packed_dots.h"
#include "screen/row_sampler.h"

namespace nvo {

struct StripScreening;

struct RipEngineParams : DeviceChoke, MaskParams {
  std::uint32_t src_dpi = kDefaultSourceDpi;  ///< source grid, both axes
  std::uint32_t x_dpi = 720;                  ///< device grid across the head
  std::uint32_t y_dpi = 1800;                 ///< device grid along the feed
  std::int32_t n_channels = 6;
  /// Per channel 256 ink values (0..255); empty selects the built-in curves.
  std::vector<std::vector<float>> linear_lut;
  std::string cache_dir;
  ResamplingMode color_resampling = ResamplingMode::smooth;
  ResamplingMode white_resampling = ResamplingMode::hard;
  ThreadPlan threads;
};

/// Some of the device rows of a strip, counted from its first.
struct DeviceRowWindow {
  std::uint32_t top = 0, rows = 0;
};

/// Turns 8-bit ink planes on the source grid into drop levels on the device grid: resampling, ink curve,
/// white choke and screening against a blue-noise mask. Channels are 0 C, 1 M, 2 Y, 3 K, 4 W; with five
/// channels or more all from 4 on are white. One engine serves a job; `process` and `process_strip` may run
/// at once for different channels and strips after `ensure_column_taps` was called for their widths.
class RipEngine {
 public:
  /// The source rows of each device row of a strip.
  struct RowMap {
    /// All that they follow from.
    struct Key {
      bool hard = false;
      float scale = 0.0f;
      std::uint32_t first_row = 0, end_row = 0, dev_h = 0;
      std::uint32_t strip_src_y = 0, strip_rows = 0, total_src_rows = 0;

      bool operator==(const Key&) const = default;
    };
    Key key;
    std::vector<RowSpan> spans;
  };

  /// Buffers that a caller's worker keeps from call to call, for their memory and for what can be taken over.
  struct ProcessScratch {
    RowMap rows;
    std::vector<RowBuffers> workers;  ///< one a row worker
  };

  /// One channel to be screened: of a strip or, where `src` has all rows, of a whole plane.
  struct Request {
    PlaneView src;                     ///< source rows `strip_src_y` and on of the plane
    std::uint32_t strip_src_y = 0;     ///< `process` takes both as for a whole plane
    std::uint32_t total_src_rows = 0;  ///< of the plane
    std::int32_t channel = 0;
    PlaneView coverage_plane;             ///< colour coverage on the grid of `src`; null for white
    const ChokeContext* choke = nullptr;  ///< may be null
    ProcessScratch* scratch = nullptr;    ///< may be null
  };

  /// Checks the parameters, mends the curves and loads or generates the masks. Throws `invalid_argument` for
  /// zero resolutions or channels and for bad mask parameters.
  explicit RipEngine(RipEngineParams params);

  /// As given, with one curve of 256 values in 0..255 for every channel.
  const RipEngineParams& params() const { return params_; }
  const MaskCache& masks() const { return masks_; }

  /// Device columns of a plane of `src_w` source columns.
  std::uint32_t device_width(std::uint32_t src_w) const { return device_extent(src_w, scale_.x); }

  /// Rebuilds the table of column taps unless it is already for exactly these widths. Not to be called while
  /// another thread screens.
  void ensure_column_taps(std::uint32_t src_w, std::uint32_t dev_w);

  /// Screens a whole plane on the calling thread. Throws `invalid_argument` for an empty plane or a channel
  /// out of range, `length_error` for a plane that no `DropMap` holds.
  DropMap process(const Request& request);

  /// Screens the rows of a strip into the device rows that belong to them; adjacent strips meet without gap
  /// or overlap. Device rows are divided among threads; the drops do not depend on their number. The memory
  /// of `out` is reused where it is large enough. With a `window` only these rows are screened, as they would
  /// be without it. Throws as `process`, and for a strip outside the plane or a window outside the strip;
  /// `out` is then as it was.
  void process_strip(DropMap& out, const Request& request, const DeviceRowWindow* window = nullptr);

  /// The same strip screened into packed rows, with no map of bytes between: row r of the window goes to row
  /// r of `out`. Throws as `process_strip`, and for rows of another width.
  void pack_strip(const PackedRows& out, const Request& request, const DeviceRowWindow& window);

  /// The white choke of a strip by the engine's settings; a support plane is given where these are adaptive.
  /// The memory of `spent` is used again.
  ChokeContext prepare_device_white(const DeviceChokeInput& strip, ChokeContext spent = {}) const;

 private:
  friend class PlainScreening;
  struct PlaneJob;
  class AppliedChoke;

  PlaneJob plane_job(const Request& request) const;
  PlaneJob strip_job(const Request& request, const DeviceRowWindow* window) const;
  void place(PlaneJob& job) const;
  AppliedChoke begin(const PlaneJob& job);
  template <class Sink>
  void screen_rows(const PlaneJob& job, const Sink& sink);
  void screen(const PlaneJob& job, DropMap& out);
  bool colour_choke_active(const PlaneJob& job) const;
  bool white_choke_active(const PlaneJob& job) const;
  AppliedChoke select_choke(const PlaneJob& job) const;
  void log_choke(const PlaneJob& job, const ChokeContext& choke) const;
  StripScreening screening_of(const PlaneJob& job, const ChokeContext* choke, RowMap& rows) const;
  void map_rows(const PlaneJob& job, RowMap& rows) const;
  std::size_t row_workers(const PlaneJob& job) const;
  void log_progress(const PlaneJob& job, std::size_t y) const;

  RipEngineParams params_;
  MaskCache masks_;
  std::vector<std::uint8_t> no_mask_;  ///< the tile row used where no valid mask is held
  DeviceScale scale_;
  ColumnTaps taps_;
};

}  // namespace nvo
