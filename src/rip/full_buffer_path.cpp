#include <algorithm>
#include <array>
#include <future>
#include <utility>

#include "core/scoped_timer.h"
#include "rip/sheet_run.h"

namespace nvo {
namespace {

/// The whole sheet on the source grid.
struct SheetPlanes {
  std::vector<Plane> planes;
  Plane explicit_white;
};

SheetPlanes compose_sheet(SheetRun& run) {
  const std::size_t width = run.src_w;
  const std::size_t pixels = width * run.src_h;
  SheetPlanes sheet;
  sheet.planes.assign(kChannelCount, Plane(pixels, 0));
  sheet.explicit_white.assign(pixels, 0);

  for (std::uint32_t strip = 0; strip < run.strips; ++strip) {
    run.throw_if_cancelled();
    const std::uint32_t y = strip * run.options.strip_h_px;
    const std::uint32_t rows = std::min(run.src_h - y, run.options.strip_h_px);
    run.report(static_cast<int>(strip), static_cast<int>(run.strips),
               static_cast<float>(strip) / static_cast<float>(run.strips) * 45.0f,
               "Compositing strip " + std::to_string(strip + 1) + "/" + std::to_string(run.strips));
    StripBuffer band;
    {
      const ScopedTimer timer(run.profile.compose);
      band = run.compositor.compose_strip(y, rows);
    }
    ++run.profile.compose_calls;
    run.profile.source_strip_pixels += width * rows;

    const ScopedTimer timer(run.profile.full_buffer_copy);
    const std::size_t offset = width * y;
    const std::size_t bytes = width * rows;
    const std::size_t channels = std::min<std::size_t>(band.planes.size(), kChannelCount);
    for (std::size_t channel = 0; channel < channels; ++channel)
      std::copy_n(band.planes[channel].begin(), std::min(bytes, band.planes[channel].size()),
                  sheet.planes[channel].begin() + static_cast<std::ptrdiff_t>(offset));
    if (band.explicit_white.size() >= bytes)
      std::copy_n(band.explicit_white.begin(), bytes,
                  sheet.explicit_white.begin() + static_cast<std::ptrdiff_t>(offset));
  }
  return sheet;
}

constexpr int kStages = static_cast<int>(kChannelCount);

/// Of the job when so many channels are screened.
float percent_of_channel(std::uint32_t done) {
  return static_cast<float>(done) / static_cast<float>(kStages) * 45.0f + 45.0f;
}

/// The tasks refer to the frame that started them: none may outlive it.
struct WaitForAll {
  const std::array<std::future<void>, kChannelCount>& tasks;
  ~WaitForAll() {
    for (const auto& task : tasks)
      if (task.valid()) task.wait();
  }
};

std::vector<DropMap> rip_sheet(SheetRun& run, const ComposedStrip& sheet) {
  std::vector<DropMap> dropmaps(kChannelCount);
  const auto rip_channel = [&](std::uint32_t channel, std::size_t scratch) {
    const ScopedTimer timer(run.profile.rip_ch[channel]);
    dropmaps[channel] =
        run.engine.process({.src = sheet.inks[channel],
                            .strip_src_y = 0,
                            .total_src_rows = run.src_h,
                            .channel = static_cast<std::int32_t>(channel),
                            .coverage_plane = channel < kChannelW ? run.choke.coverage() : PlaneView(),
                            .choke = run.choke.context(),
                            .scratch = &run.scratch[scratch]});
  };

  if (run.pool) {
    run.throw_if_cancelled();
    run.report(0, kStages, percent_of_channel(0), "Ripping channels");
    std::array<std::future<void>, kChannelCount> pending;
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel)
      pending[channel] = run.pool->submit(
          [&rip_channel, channel](std::size_t scratch) { rip_channel(channel, scratch); }, channel);
    const WaitForAll all{pending};
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel) {
      pending[channel].wait();
      run.report(0, kStages, percent_of_channel(channel + 1), "Ripping channels");
    }
    for (auto& task : pending) task.get();
  } else {
    for (std::uint32_t channel = 0; channel < kChannelCount; ++channel) {
      run.throw_if_cancelled();
      run.report(static_cast<int>(channel), kStages, percent_of_channel(channel),
                 "Ripping channel " + std::to_string(channel + 1) + "/5");
      rip_channel(channel, channel);
    }
  }
  return dropmaps;
}

bool has_drops(const DropMap& map) {
  return std::ranges::any_of(map.data, [](std::uint8_t dot) { return dot != 0; });
}

}  // namespace

void run_full_buffer(SheetRun& run) {
  if (run.announce) run.announce();
  const SheetPlanes planes = compose_sheet(run);
  const ComposedStrip sheet = view_strip(run, planes.planes, planes.explicit_white, 0, run.src_h);
  ChokeTimes times;
  run.choke.prepare(run.engine, sheet, times);
  run.profile.occupancy += times.planes;
  run.profile.choke_context += times.context;
  const std::vector<DropMap> dropmaps = rip_sheet(run, sheet);
  for (const DropMap& map : dropmaps) run.profile.device_channel_pixels += map.data.size();

  run.require_printed(std::ranges::any_of(dropmaps, has_drops));
  run.report(static_cast<int>(run.strips), static_cast<int>(run.strips), 95.0f,
             "Writing " + std::string(print_extension(run.options.head())));
  const ScopedTimer timer(run.profile.writer);
  run.writer.write_dropmaps(dropmaps, run.output_path);
}

}  // namespace nvo
