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
#include "plan/sheet_geometry.h"
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

/// Where a strip lies on both grids, and the halo around it.
struct StripPlace {
  std::uint32_t src_y = 0, src_rows = 0;  ///< the strip's own source rows
  std::uint32_t first = 0, rows = 0;      ///< source rows with the halo
  std::uint32_t dev_y = 0, dev_rows = 0;  ///< device rows that the strip delivers
  std::uint32_t crop_top = 0;             ///< device rows of the upper halo
  std::uint32_t all_dev_rows = 0;         ///< device rows with both halos

  bool has_halo() const { return first != src_y || rows != src_rows; }
};

StripPlace place_strip(const SheetRun& run, std::uint32_t strip, std::uint32_t halo) {
  const auto to_device = [&](std::uint32_t source_row) {
    return device_row(source_row, run.src_h, run.options.src_dpi, run.mode.y_dpi);
  };
  StripPlace place;
  place.src_y = strip * run.options.strip_h_px;
  place.src_rows = std::min(run.src_h - place.src_y, run.options.strip_h_px);
  const std::uint32_t end = place.src_y + place.src_rows;
  place.first = place.src_y > halo ? place.src_y - halo : 0;
  const std::uint32_t last =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{end} + halo, run.src_h));
  place.rows = last - place.first;
  place.dev_y = to_device(place.src_y);
  place.dev_rows = to_device(end) - place.dev_y;
  place.crop_top = place.dev_y - to_device(place.first);
  place.all_dev_rows = to_device(last) - to_device(place.first);
  if (place.crop_top > place.all_dev_rows || place.dev_rows > place.all_dev_rows - place.crop_top)
    throw std::runtime_error("StreamRip: invalid DropMap crop rows");
  return place;
}

/// The most rows of each kind that any strip has.
StripPlace largest_of_strips(const SheetRun& run, std::uint32_t halo) {
  StripPlace largest;
  for (std::uint32_t strip = 0; strip < run.strips; ++strip) {
    const StripPlace place = place_strip(run, strip, halo);
    largest.rows = std::max(largest.rows, place.rows);
    largest.dev_rows = std::max(largest.dev_rows, place.dev_rows);
    largest.all_dev_rows = std::max(largest.all_dev_rows, place.all_dev_rows);
  }
  return largest;
}

/// A strip's rows are screened and written in so many bands, unless these were very small or large: writing
/// begins early, and a band is a size that memory is cheap for.
constexpr std::size_t kBandsOfStrip = 12;
constexpr std::size_t kLeastBandBytes = 4 << 20, kMostBandBytes = 32 << 20;
/// Two are filled and one is written; the others wait, so that the disk has work while a strip is composed.
constexpr std::size_t kBandsInFlight = 8;

std::uint32_t rows_of_band(std::uint32_t strip_rows, std::size_t row_bytes) {
  const std::size_t bytes =
      std::clamp(strip_rows * row_bytes / kBandsOfStrip, kLeastBandBytes, kMostBandBytes);
  return static_cast<std::uint32_t>(
      std::max<std::size_t>(std::min<std::size_t>(bytes / row_bytes, strip_rows), 1));
}

class StripTask {
 public:
  /// No strip has more rows, composed or on the device, than `largest`. `band_is_there` is called after each
  /// band.
  StripTask(SheetRun& run, BandQueue& bands, const StripPlace& largest, std::function<void()> band_is_there)
      : run_(run),
        bands_(bands),
        band_is_there_(std::move(band_is_there)),
        band_rows_(rows_of_band(largest.dev_rows, run.writer.row_bytes())) {
    reserve(largest);
  }

  /// Composes and screens a strip and puts its bands into the queue, from the strip's bottom to its top.
  StreamingStripResult rip_strip(const StripPlace& place) {
    StreamingStripResult result;
    result.dev_rows = place.dev_rows;
    const std::size_t pixels = std::size_t{run_.src_w} * place.rows;
    result.source_strip_pixels = pixels;

    StripBuffer& strip_buffer = strip_buffer_;
    {
      const ScopedTimer timer(result.compose);
      strip_buffer = run_.compositor.compose_strip(place.first, place.rows, std::move(strip_buffer));
    }
    const ComposedStrip strip =
        view_strip(run_, strip_buffer.planes, strip_buffer.explicit_white, place.first, place.rows);
    run_.choke.prepare(run_.engine, strip, result.choke);
    rip_channels(place, strip, result);
    return result;
  }

 private:
  /// The first strip, at the sheet's bottom, may be a small one. With room for the largest from the start no
  /// later one touches new memory; room that nobody uses costs nothing.
  void reserve(const StripPlace& largest) {
    const std::size_t pixels = std::size_t{run_.src_w} * largest.rows;
    strip_buffer_.planes.resize(kChannelCount);
    for (Plane& plane : strip_buffer_.planes) reserve_large(plane, pixels);
    reserve_large(strip_buffer_.explicit_white, pixels);
    run_.choke.reserve(run_.src_w, largest.rows, run_.dev_w, largest.all_dev_rows);
  }

  PlaneView channel_plane(const ComposedStrip& strip, std::uint32_t channel) {
    if (!strip.inks[channel].null()) return strip.inks[channel];
    zeros_.resize(std::max(zeros_.size(), std::size_t{strip.width} * strip.rows));
    return {zeros_.data(), strip.width, strip.rows};
  }

  void rip_channels(const StripPlace& place, const ComposedStrip& strip, StreamingStripResult& result) {
    std::array<PlaneView, kChannelCount> planes;
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel)
      planes[channel] = channel_plane(strip, channel);

    const auto start_band = [&](std::uint32_t end, std::uint32_t rows, std::size_t scratch_set) {
      auto band = std::make_unique<BandInWork>();
      band->band.dev_y = place.dev_y + end;
      band->band.cycles = run_.writer.make_strip_cycles(rows, band->band.dev_y, bands_.take_spent());
      for (std::uint32_t channel = 0; channel < kChannelCount; ++channel) {
        const auto rip = [&, channel, window = DeviceRowWindow{place.crop_top + end, rows},
                          &packed = band->band.cycles.channels[channel],
                          &nanoseconds = band->rip_ch[channel]](std::size_t scratch) {
          const ScopedTimer timer(nanoseconds);
          if (!packed.top) return;  // no slot of the board prints this ink
          run_.engine.pack_strip(packed,
                                 {.src = planes[channel],
                                  .strip_src_y = strip.src_y,
                                  .total_src_rows = strip.total_src_rows,
                                  .channel = static_cast<std::int32_t>(channel),
                                  .coverage_plane = channel < kChannelW ? run_.choke.coverage() : PlaneView(),
                                  .choke = run_.choke.context(),
                                  .scratch = &run_.scratch[scratch]},
                                 window);
        };
        const std::size_t scratch = scratch_set * kChannelCount + channel;
        if (run_.pool)
          band->pending[channel] = run_.pool->submit(rip, scratch);
        else
          rip(scratch);
      }
      return band;
    };
    const auto finish_band = [&](BandInWork& work) {
      work.wait();
      for (auto& task : work.pending)
        if (task.valid()) task.get();
      for (std::size_t channel = 0; channel < kChannelCount; ++channel)
        result.rip_ch[channel] += work.rip_ch[channel];
      bands_.put(std::move(work.band));
      band_is_there_();
    };

    // Two bands are in work at a time, so that no thread waits for the slowest ink of a band.
    std::unique_ptr<BandInWork> before;
    std::size_t scratch_set = 0;
    for (std::uint32_t end = place.dev_rows; end > 0; scratch_set = 1 - scratch_set) {
      const std::uint32_t rows = std::min(band_rows_, end);
      end -= rows;
      std::unique_ptr<BandInWork> band = start_band(end, rows, scratch_set);
      if (before) finish_band(*before);
      before = std::move(band);
    }
    if (before) finish_band(*before);
  }

  /// A band and the tasks that fill it. They refer to the frame that started them, so none may outlive it.
  struct BandInWork {
    StripBand band;
    std::array<std::future<void>, kChannelCount> pending;
    std::array<std::uint64_t, kChannelCount> rip_ch{};  ///< nanoseconds

    ~BandInWork() { wait(); }
    void wait() const {
      for (const auto& task : pending)
        if (task.valid()) task.wait();
    }
  };

  SheetRun& run_;
  BandQueue& bands_;
  const std::function<void()> band_is_there_;
  const std::uint32_t band_rows_;
  StripBuffer strip_buffer_;  ///< of the strip before; its memory serves the next, as that of all below
  std::vector<std::uint8_t> zeros_;  ///< stands for a plane that the compositor did not give
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
  StripStream(SheetRun& run, std::uint32_t halo)
      : run_(run),
        halo_(halo),
        bands_(kBandsInFlight),
        writer_(run, bands_),
        task_(run, bands_, largest_of_strips(run, halo), [this] { writer_.band_is_there(); }) {}

  void run_all() try {
    RunningStrip strip = start(run_.strips - 1, 0);
    for (std::uint32_t remaining = run_.strips; remaining > 0; --remaining) {
      report_bands(strip);
      const StreamingStripResult result = strip.result.get();
      bands_.wait_for_rows(strip.rows_before);  // however small strips are, two at the most are in flight
      if (remaining > 1) strip = start(remaining - 2, strip.rows_before + result.dev_rows);
      add_to_profile(result, run_.dev_w, run_.profile);
    }
  } catch (...) {
    writer_.finish();  // a write that failed says more than the strip that it has stopped
    throw;
  }
  BandWriter& writer() { return writer_; }

 private:
  RunningStrip start(std::uint32_t number, std::uint64_t rows_before) {
    run_.throw_if_cancelled();
    RunningStrip strip{run_.strips - 1 - number, place_strip(run_, number, halo_), rows_before, {}, {}};
    strip.message =
        "Streaming strip " + std::to_string(run_.strips - number) + "/" + std::to_string(run_.strips);
    report(strip, 0);
    log_debug("StreamRip: strip ", run_.strips - number, "/", run_.strips, " src_y=", strip.place.src_y,
              " h=", strip.place.src_rows, strip.place.has_halo() ? " with halo" : "");
    if (strip.stage == 0 && run_.announce) run_.announce();
    bands_.begin_strip();
    strip.result = start_work([this, place = strip.place] {
      const EndOfStrip end{bands_};
      return task_.rip_strip(place);
    });
    return strip;
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
    run_.report(static_cast<int>(strip.stage), static_cast<int>(run_.strips),
                stages / static_cast<float>(run_.strips) * kStreamingPercent, strip.message,
                strip.rows_before + rows_done);
  }

  struct EndOfStrip {
    BandQueue& bands;
    ~EndOfStrip() { bands.end_strip(); }
  };

  SheetRun& run_;
  const std::uint32_t halo_;
  BandQueue bands_;
  BandWriter writer_;
  StripTask task_;
};

}  // namespace

void run_streaming(SheetRun& run) {
  run.writer.begin_stream_write(run.output_path, run.dev_w, run.dev_h);
  StripStream stream(run, streaming_halo(run.options, run.mode, run.choke));
  stream.run_all();
  stream.writer().finish();
  if (stream.writer().rows() != run.dev_h) throw std::runtime_error("StreamRip: streamed row count mismatch");
  run.require_printed(stream.writer().any_drop());

  run.report(static_cast<int>(run.strips), static_cast<int>(run.strips), 97.0f,
             "Finalizing " + std::string(print_extension(run.options.head())), run.dev_h);
  const ScopedTimer timer(run.profile.finalize);
  run.writer.end_stream_write();
}

}  // namespace nvo
