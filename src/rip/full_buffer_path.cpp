#include <algorithm>
#include <array>
#include <future>
#include <utility>

#include "core/scoped_timer.h"
#include "rip/sheet_run.h"

namespace nvo {
namespace {

/// The whole sheet on the source grid.
StripBuffer compose_sheet(SheetRun& run) {
  StripBuffer sheet;
  const StripPlan& strips = run.plan.strips;
  sheet.width = strips.src_w;
  sheet.height = strips.src_h;
  for (Plane* plane : sheet.all_planes()) plane->assign(sheet.pixels(), 0);

  for (std::uint32_t strip = 0; strip < strips.count; ++strip) {
    run.throw_if_cancelled();
    const std::uint32_t y = strip * strips.strip_rows;
    const std::uint32_t rows = std::min(strips.src_h - y, strips.strip_rows);
    run.report(static_cast<int>(strip), static_cast<int>(strips.count),
               static_cast<float>(strip) / static_cast<float>(strips.count) * 45.0f,
               "Compositing strip " + std::to_string(strip + 1) + "/" + std::to_string(strips.count));
    StripBuffer band;
    {
      const ScopedTimer timer(run.profile.compose);
      band = run.compositor.compose_strip(y, rows);
    }
    ++run.profile.compose_calls;
    run.profile.source_strip_pixels += band.pixels();

    const ScopedTimer timer(run.profile.full_buffer_copy);
    const auto copy = [&](const PlaneView& from, const MutablePlaneView& to) {
      copy_plane(from, to.part(0, y, sheet.width, rows));
    };
    for (std::size_t channel = 0; channel < kChannelCount; ++channel)
      copy(band.ink(channel), sheet.ink(channel));
    copy(band.explicit_view(), sheet.explicit_view());
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
                            .total_src_rows = sheet.total_src_rows,
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
  run.announce();
  const StripBuffer planes = compose_sheet(run);
  const ComposedStrip sheet = run.view(planes);
  ChokeTimes times;
  run.choke.prepare(run.engine, sheet, times);
  run.profile.occupancy += times.planes;
  run.profile.choke_context += times.context;
  const std::vector<DropMap> dropmaps = rip_sheet(run, sheet);
  for (const DropMap& map : dropmaps) run.profile.device_channel_pixels += map.data.size();

  run.require_printed(std::ranges::any_of(dropmaps, has_drops));
  const auto stages = static_cast<int>(run.plan.strips.count);
  run.report(stages, stages, 95.0f, "Writing " + std::string(print_extension(run.plan.options.head())));
  const ScopedTimer timer(run.profile.writer);
  run.writer.write_dropmaps(dropmaps, run.output_path);
}

}  // namespace nvo
