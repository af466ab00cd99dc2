#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <utility>

#include "core/large_vector.h"
#include "core/log.h"
#include "core/scoped_timer.h"
#include "core/threads/started_work.h"
#include "image/row_stream.h"
#include "rip/band_queue.h"
#include "rip/sheet_run.h"

namespace nvo {
namespace {

/// What the profile learns of one strip.
struct StreamingStripResult {
  std::uint32_t dev_rows = 0;
  std::uint64_t source_strip_pixels = 0;  ///< source width x composed rows, halo included
  std::uint64_t compose = 0;              ///< nanoseconds
  ChokeTimes choke;
  std::array<std::uint64_t, kChannelCount> rip_ch{};  ///< nanoseconds
};

/// A band and the tasks that fill it. They refer to this record, so it stays where it is and none outlives
/// it.
struct BandInWork {
  StripBand band;
  std::array<std::future<void>, kChannelCount> pending;
  std::array<std::uint64_t, kChannelCount> rip_ch{};  ///< nanoseconds

  BandInWork() = default;
  BandInWork(const BandInWork&) = delete;
  BandInWork& operator=(const BandInWork&) = delete;
  ~BandInWork() { wait(); }

  void wait() const {
    for (const auto& task : pending)
      if (task.valid()) task.wait();
  }
};

class StripTask {
 public:
  /// `band_is_there` is called after each band.
  StripTask(SheetRun& run, StripOrder order, BandQueue& bands, std::function<void()> band_is_there)
      : run_(run), order_(order), bands_(bands), band_is_there_(std::move(band_is_there)) {
    reserve(run.plan.strips.largest());
  }

  /// Composes and screens a strip and puts its bands into the queue, in the order of the strips. `next` are
  /// the composed rows of the strip that follows.
  StreamingStripResult rip_strip(const StripPlace& place, const IndexRange& next) {
    StreamingStripResult result;
    result.dev_rows = place.dev_rows;
    {
      const ScopedTimer timer(result.compose);
      strip_buffer_ = run_.compositor.compose_strip(place.first, place.rows, std::move(strip_buffer_), next);
    }
    result.source_strip_pixels = strip_buffer_.pixels();
    const ComposedStrip strip = run_.view(strip_buffer_);
    run_.choke.prepare(run_.engine, strip, result.choke);
    rip_bands(place, strip, result);
    return result;
  }

 private:
  /// The first strip may be a small one. With room for the largest from the start no
  /// later one touches new memory; room that nobody uses costs nothing.
  void reserve(const StripPlace& largest) {
    const StripPlan& strips = run_.plan.strips;
    const std::size_t pixels = std::size_t{strips.src_w} * largest.rows;
    for (Plane* plane : strip_buffer_.all_planes()) reserve_large(*plane, pixels);
    run_.choke.reserve(strips.src_w, largest.rows, strips.dev_w, largest.all_dev_rows);
  }

  /// Two bands are in work at a time, so that no thread waits for the slowest ink of a band.
  void rip_bands(const StripPlace& place, const ComposedStrip& strip, StreamingStripResult& result) {
    std::unique_ptr<BandInWork> before;
    std::size_t scratch_set = 0;
    for (std::uint32_t left = place.dev_rows; left > 0; scratch_set = 1 - scratch_set) {
      const std::uint32_t rows = std::min(run_.plan.band_rows, left);
      const std::uint32_t top = order_ == StripOrder::top_down ? place.dev_rows - left : left - rows;
      left -= rows;
      auto band = std::make_unique<BandInWork>();
      start_band(*band, place, strip, {top, rows}, scratch_set);
      if (before) finish_band(*before, result);
      before = std::move(band);
    }
    if (before) finish_band(*before, result);
  }

  /// Starts screening the rows `rows` that a strip delivers. Place and planes must outlive the work.
  void start_band(BandInWork& work, const StripPlace& place, const ComposedStrip& strip, DeviceRowWindow rows,
                  std::size_t scratch_set) {
    work.band.dev_y = place.dev_y + rows.top;
    work.band.cycles = run_.writer.make_strip_cycles(rows.rows, work.band.dev_y, bands_.take_spent());
    const DeviceRowWindow window{place.crop_top + rows.top, rows.rows};  // behind the halo
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel) {
      const auto rip = [this, &work, &strip, window, channel](std::size_t scratch) {
        rip_channel(work, strip, window, channel, scratch);
      };
      const std::size_t scratch = scratch_set * kChannelCount + channel;
      if (run_.pool)
        work.pending[channel] = run_.pool->submit(rip, scratch);
      else
        rip(scratch);
    }
  }

  void rip_channel(BandInWork& work, const ComposedStrip& strip, const DeviceRowWindow& window,
                   std::uint32_t channel, std::size_t scratch) {
    const ScopedTimer timer(work.rip_ch[channel]);
    const PackedRows& packed = work.band.cycles.channels[channel];
    if (!packed.top) return;  // no slot of the board prints this ink
    run_.engine.pack_strip(packed,
                           {.src = strip.inks[channel],
                            .strip_src_y = strip.src_y,
                            .total_src_rows = strip.total_src_rows,
                            .channel = static_cast<std::int32_t>(channel),
                            .coverage_plane = channel < kChannelW ? run_.choke.coverage() : PlaneView(),
                            .choke = run_.choke.context(),
                            .scratch = &run_.scratch[scratch]},
                           window);
  }

  void finish_band(BandInWork& work, StreamingStripResult& result) {
    work.wait();
    for (auto& task : work.pending)
      if (task.valid()) task.get();
    for (std::size_t channel = 0; channel < kChannelCount; ++channel)
      result.rip_ch[channel] += work.rip_ch[channel];
    bands_.put(std::move(work.band));
    band_is_there_();
  }

  SheetRun& run_;
  const StripOrder order_;
  BandQueue& bands_;
  const std::function<void()> band_is_there_;
  StripBuffer strip_buffer_;  ///< of the strip before; its memory serves the next
};

void add_to_profile(const StreamingStripResult& result, std::uint32_t dev_w, StreamRipProfile& profile) {
  profile.source_strip_pixels += result.source_strip_pixels;
  profile.compose += result.compose;
  profile.occupancy += result.choke.planes;
  profile.choke_context += result.choke.context;
  profile.device_channel_pixels += std::uint64_t{dev_w} * result.dev_rows * kChannelCount;
  for (std::size_t channel = 0; channel < kChannelCount; ++channel)
    profile.rip_ch[channel] += result.rip_ch[channel];
  ++profile.compose_calls;
}

bool has_drops(const StripCycles& cycles) {
  const std::uint8_t* const bytes = cycles.bytes;  // all zero if the first is and each equals the next
  return cycles.size != 0 && (bytes[0] != 0 || std::memcmp(bytes, bytes + 1, cycles.size - 1) != 0);
}

/// Puts the bands of all strips into the file, on a thread of its own. Where there is none, the thread that
/// screens them writes each as soon as it is there.
class BandWriter {
 public:
  BandWriter(SheetRun& run, BandQueue& bands)
      : run_(run), bands_(bands), written_(start_work([this] { write_all(); })) {
    alone_ = written_.runs_by_itself();
  }
  ~BandWriter() { bands_.finish(); }

  /// For the screening side, after each band.
  void band_is_there() {
    if (!alone_) write(*bands_.take());
  }
  /// No band follows. Throws what writing threw.
  void finish() {
    bands_.finish();
    written_.get();
  }
  std::uint64_t rows() const { return rows_; }  ///< written; after `finish`
  bool any_drop() const { return any_drop_; }   ///< in them

 private:
  /// A failure stops the strip task too.
  void write_all() try {
    while (std::optional<StripBand> band = bands_.take()) write(std::move(*band));
  } catch (...) {
    bands_.close();
    throw;
  }
  void write(StripBand band) {
    any_drop_ = any_drop_ || has_drops(band.cycles);
    const ScopedTimer timer(run_.profile.writer);
    run_.writer.write_cycles_strip(band.cycles, band.dev_y);
    rows_ += band.cycles.rows;
    bands_.give_back(std::move(band.cycles));
  }

  SheetRun& run_;
  BandQueue& bands_;
  bool alone_ = false;
  bool any_drop_ = false;
  std::uint64_t rows_ = 0;
  StartedWork<void> written_;
};

/// A strip in work and what is told of it meanwhile.
struct RunningStrip {
  std::uint32_t stage = 0;  ///< strips done before it
  StripPlace place;
  std::uint64_t rows_before = 0;  ///< device rows of those strips
  std::string message;
  StartedWork<StreamingStripResult> result;
};

constexpr float kStreamingPercent = 95.0f;

/// Streams the strips of a run through composition, screening and the writer.
class StripStream {
 public:
  StripStream(SheetRun& run, StripOrder order)
      : run_(run),
        order_(order),
        strips_(run.plan.strips.count),
        bands_(kBandsInFlight),
        writer_(run, bands_),
        task_(run, order, bands_, [this] { writer_.band_is_there(); }) {}

  void run_all() try {
    RunningStrip strip = start(0, 0);
    for (std::uint32_t done = 1; done <= strips_; ++done) {
      report_bands(strip);
      const StreamingStripResult result = strip.result.get();
      bands_.wait_for_rows(strip.rows_before);  // however small strips are, two at the most are in flight
      if (done < strips_) strip = start(done, strip.rows_before + result.dev_rows);
      add_to_profile(result, run_.plan.strips.dev_w, run_.profile);
    }
  } catch (...) {
    writer_.finish();  // a write that failed says more than the strip that it has stopped
    throw;
  }
  BandWriter& writer() { return writer_; }

 private:
  RunningStrip start(std::uint32_t stage, std::uint64_t rows_before) {
    run_.throw_if_cancelled();
    RunningStrip strip{stage, place(stage), rows_before, {}, {}};
    strip.message = "Streaming strip " + std::to_string(stage + 1) + "/" + std::to_string(strips_);
    report(strip, 0);
    log_debug("StreamRip: strip ", stage + 1, "/", strips_, " src_y=", strip.place.src_y,
              " h=", strip.place.src_rows, strip.place.has_halo() ? " with halo" : "");
    if (strip.stage == 0) run_.announce();
    bands_.begin_strip();
    IndexRange next;
    if (stage + 1 < strips_) {
      const StripPlace following = place(stage + 1);
      next = {following.first, following.first + following.rows};
    }
    strip.result = start_work([this, place = strip.place, next] {
      const EndOfStrip end{bands_};
      return task_.rip_strip(place, next);
    });
    return strip;
  }
  StripPlace place(std::uint32_t stage) const {
    return run_.plan.strips.place(run_.plan.strips.at_stage(stage, order_));
  }

  /// Reports what a strip's bands have come to. The strip as a whole is told by the record that follows.
  void report_bands(const RunningStrip& strip) {
    if (!strip.result.runs_by_itself()) return;
    const std::uint64_t all = strip.rows_before + strip.place.dev_rows;
    for (std::uint64_t rows = strip.rows_before; const auto known = bands_.wait_for_band(rows);) {
      rows = *known;
      if (rows < all) report(strip, static_cast<std::uint32_t>(rows - strip.rows_before));
    }
  }

  void report(const RunningStrip& strip, std::uint32_t rows_done) const {
    float stages = static_cast<float>(strip.stage);
    if (rows_done != 0) stages += static_cast<float>(rows_done) / static_cast<float>(strip.place.dev_rows);
    run_.report(static_cast<int>(strip.stage), static_cast<int>(strips_),
                stages / static_cast<float>(strips_) * kStreamingPercent, strip.message,
                strip.rows_before + rows_done);
  }

  struct EndOfStrip {
    BandQueue& bands;
    ~EndOfStrip() { bands.end_strip(); }
  };

  SheetRun& run_;
  const StripOrder order_;
  const std::uint32_t strips_;
  BandQueue bands_;
  BandWriter writer_;
  StripTask task_;
};

/// Writes all rows of the print file; true if any of them has a drop.
bool stream_strips(SheetRun& run, StripOrder order) {
  const StripPlan& strips = run.plan.strips;
  run.begin_sheet(order);
  run.writer.begin_stream_write(run.output_path, strips.dev_w, strips.dev_h, order);
  StripStream stream(run, order);
  stream.run_all();
  stream.writer().finish();
  run.compositor.finish();
  if (stream.writer().rows() != strips.dev_h)
    throw std::runtime_error("StreamRip: streamed row count mismatch");
  return stream.writer().any_drop();
}

bool stream_in_best_order(SheetRun& run) {
  if (run.plan.order == StripOrder::bottom_up) return stream_strips(run, StripOrder::bottom_up);
  log_debug("StreamRip: strips are worked on from the top, while the art is decoded");
  try {
    return stream_strips(run, StripOrder::top_down);
  } catch (const RowStreamBroken& broken) {
    log_debug("StreamRip: the sheet is begun anew from its bottom: ", broken.what());
  }
  return stream_strips(run, StripOrder::bottom_up);
}

}  // namespace

void run_streaming(SheetRun& run) {
  const StripPlan& strips = run.plan.strips;
  run.require_printed(stream_in_best_order(run));

  const auto stages = static_cast<int>(strips.count);
  run.report(stages, stages, 97.0f, "Finalizing " + std::string(print_extension(run.plan.options.head())),
             strips.dev_h);
  const ScopedTimer timer(run.profile.finalize);
  run.writer.end_stream_write();
}

}  // namespace nvo
