#include <algorithm>
#include <array>
#include <future>
#include <memory>
#include <optional>
#include <utility>

#include "core/large_vector.h"
#include "core/log.h"
#include "core/scoped_timer.h"
#include "plan/sheet_geometry.h"
#include "rip/band_queue.h"
#include "rip/sheet_run.h"

namespace nvo {
namespace {

/// What the profile learns of one strip.
struct StreamingStripResult {
  std::uint32_t dev_rows = 0;
  std::uint64_t source_strip_pixels = 0;  ///< source width x composed rows, halo included
  std::uint64_t compose = 0, occupancy = 0, device_choke = 0;  ///< nanoseconds
  std::array<std::uint64_t, kChannelCount> rip_ch{};           ///< nanoseconds
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
  /// No strip has more rows, composed or on the device, than `largest`.
  StripTask(SheetRun& run, BandQueue& bands, const StripPlace& largest)
      : run_(run), bands_(bands), band_rows_(rows_of_band(largest.dev_rows, run.writer.row_bytes())) {
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
    {
      const ScopedTimer timer(result.occupancy);
      make_choke_planes(run_, strip_buffer.planes, place.rows, choke_planes_);
    }
    if (!choke_planes_.coverage.empty()) {
      const ScopedTimer timer(result.device_choke);
      choke_ = prepare_choke(place, strip_buffer, choke_planes_);
    }
    rip_channels(place, strip_buffer, choke_planes_, choke_, result);
    return result;
  }

 private:
  /// The first strip, at the sheet's bottom, may be a small one. With room for the largest from the start no
  /// later one touches new memory; room that nobody uses costs nothing.
  void reserve(const StripPlace& largest) {
    const std::size_t pixels = std::size_t{run_.src_w} * largest.rows;
    strip_buffer_.planes.resize(kChannelCount);
    for (Plane& plane : strip_buffer_.planes) reserve_large(plane, pixels);
    for (Plane* plane : {&strip_buffer_.explicit_white, &choke_planes_.coverage, &choke_planes_.light})
      reserve_large(*plane, pixels);
    for (BitPlane* plane : {&choke_.grown, &choke_.keep}) plane->reshape(run_.dev_w, largest.all_dev_rows);
  }

  ChokeContext prepare_choke(const StripPlace& place, const StripBuffer& strip, const ChokePlanes& planes) {
    const std::size_t pixels = planes.coverage.size();
    const auto if_whole = [&](const Plane& plane) { return plane.size() >= pixels ? plane.data() : nullptr; };
    const bool has_white = run_.choke.adaptive && strip.planes.size() > kChannelW;
    return run_.engine.prepare_device_white(
        planes.coverage.data(), run_.src_w, place.rows, place.first, run_.src_h,
        if_whole(strip.explicit_white), has_white ? if_whole(strip.planes[kChannelW]) : nullptr,
        planes.light.empty() ? nullptr : planes.light.data(), std::move(choke_));
  }

  const std::uint8_t* channel_plane(const StripBuffer& strip, std::uint32_t channel, std::size_t pixels) {
    if (channel < strip.planes.size() && !strip.planes[channel].empty()) return strip.planes[channel].data();
    if (zeros_.size() < pixels) zeros_.resize(pixels);
    return zeros_.data();
  }

  void rip_channels(const StripPlace& place, const StripBuffer& strip, const ChokePlanes& choke_planes,
                    const ChokeContext& context, StreamingStripResult& result) {
    const std::size_t pixels = std::size_t{run_.src_w} * place.rows;
    std::array<const std::uint8_t*, kChannelCount> planes{};
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel)
      planes[channel] = channel_plane(strip, channel, pixels);
    const std::uint8_t* coverage = choke_planes.coverage.empty() ? nullptr : choke_planes.coverage.data();

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
          run_.engine.pack_strip(packed, planes[channel], run_.src_w, place.rows, place.first, run_.src_h,
                                 static_cast<std::int32_t>(channel), channel < kChannelW ? coverage : nullptr,
                                 coverage ? &context : nullptr, &run_.scratch[scratch], window);
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
  const std::uint32_t band_rows_;
  StripBuffer strip_buffer_;  ///< of the strip before; its memory serves the next, as that of all below
  ChokePlanes choke_planes_;
  ChokeContext choke_;
  std::vector<std::uint8_t> zeros_;  ///< stands for a plane that the compositor did not give
};

void add_to_profile(const StreamingStripResult& result, std::uint32_t dev_w, StreamRipProfile& profile) {
  profile.source_strip_pixels += result.source_strip_pixels;
  profile.compose += result.compose;
  profile.occupancy += result.occupancy;
  profile.choke_context += result.device_choke;
  profile.device_channel_pixels += std::uint64_t{dev_w} * result.dev_rows * kChannelCount;
  for (std::size_t channel = 0; channel < kChannelCount; ++channel)
    profile.rip_ch[channel] += result.rip_ch[channel];
  ++profile.compose_calls;
}

/// Writes the bands of all strips and returns the count of their rows. A failure stops the strip task too.
std::uint64_t write_bands(SheetRun& run, BandQueue& bands) try {
  std::uint64_t rows = 0;
  while (std::optional<StripBand> band = bands.take()) {
    const ScopedTimer timer(run.profile.writer);
    run.writer.write_cycles_strip(band->cycles, band->dev_y);
    rows += band->cycles.rows;
    bands.give_back(std::move(band->cycles));
  }
  return rows;
} catch (...) {
  bands.close();
  throw;
}

}  // namespace

void run_streaming(SheetRun& run) {
  const RipJobOptions& options = run.options;
  run.writer.begin_stream_write(run.output_path, run.dev_w, run.dev_h);
  const std::uint32_t halo =
      halo_rows({options.src_dpi, run.mode.y_dpi,
                 options.color_resampling_mode == ResamplingMode::hard &&
                     options.white_resampling_mode == ResamplingMode::hard,
                 run.choke.device_choke, options.white_choke_amount_px_at_300dpi, run.choke.min_width_dots});

  BandQueue bands(kBandsInFlight);
  StripTask task(run, bands, largest_of_strips(run, halo));
  const auto start_strip = [&](std::uint32_t strip) {
    run.throw_if_cancelled();
    const std::uint32_t stage = run.strips - 1 - strip;
    const StripPlace place = place_strip(run, strip, halo);
    run.report(static_cast<int>(stage), static_cast<int>(run.strips),
               static_cast<float>(stage) / static_cast<float>(run.strips) * 95.0f,
               "Streaming strip " + std::to_string(run.strips - strip) + "/" + std::to_string(run.strips),
               run.dev_h - (place.dev_y + place.dev_rows));
    log_debug("StreamRip: strip ", run.strips - strip, "/", run.strips, " src_y=", place.src_y,
              " h=", place.src_rows, place.has_halo() ? " with halo" : "");
    if (stage == 0 && run.announce) run.announce();
    return std::async(std::launch::async, [&task, place] { return task.rip_strip(place); });
  };

  std::future<std::uint64_t> written =
      std::async(std::launch::async, [&] { return write_bands(run, bands); });
  try {
    std::future<StreamingStripResult> next = start_strip(run.strips - 1);
    std::uint64_t rows_before = 0;  // of the strips before the one that is done
    for (std::uint32_t remaining = run.strips; remaining > 0; --remaining) {
      const StreamingStripResult result = next.get();
      bands.wait_for_rows(rows_before);  // however small strips are, two at the most are in flight
      rows_before += result.dev_rows;
      if (remaining > 1) next = start_strip(remaining - 2);
      add_to_profile(result, run.dev_w, run.profile);
    }
  } catch (...) {
    bands.finish();
    written.get();  // a write that failed says more than the strip that it has stopped
    throw;
  }
  bands.finish();
  const std::uint64_t rows_written = written.get();
  if (rows_written != run.dev_h) throw std::runtime_error("StreamRip: streamed row count mismatch");

  run.report(static_cast<int>(run.strips), static_cast<int>(run.strips), 97.0f,
             "Finalizing " + std::string(print_extension(options.head())), run.dev_h);
  const ScopedTimer timer(run.profile.finalize);
  run.writer.end_stream_write();
}

}  // namespace nvo
