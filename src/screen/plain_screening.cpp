#include "screen/plain_screening.h"

#include <algorithm>
#include <span>

#include "screen/drop_map.h"
#include "screen/plane_job.h"
#include "screen/row_screener.h"

namespace nvo {
namespace {

constexpr float kMaxInk = 255.0f;

void clear_outside(const BitPlane& kept, std::vector<float>& plane) {
  for (std::size_t y = 0; y < kept.height; ++y)
    for (std::size_t x = 0; x < kept.width; ++x)
      if (!kept.test(x, y)) plane[y * kept.width + x] = 0.0f;
}

/// Dot after dot in place: a source that comes before its ring dot is read as it was left.
void choke_colour_plane(const ChokeContext& choke, std::vector<float>& plane) {
  const std::size_t width = choke.width;
  for (std::size_t y = 0; y < choke.height; ++y) {
    const std::vector<RingDot> dots = choke.ring_of_row(y);
    std::span<const RingDot> ring = dots;
    for (std::size_t x = 0; x < width; ++x) {
      while (!ring.empty() && ring.front().x < x) ring = ring.subspan(1);
      if (choke.grown.test(x, y) && choke.colour_core.test(x, y)) continue;
      float ink = 0.0f;
      if (choke.grown.test(x, y) && !ring.empty() && ring.front().x == x) {
        const RingDot& dot = ring.front();
        if (dot.source_x < width && dot.source_y < choke.height)
          ink = plane[dot.source_y * width + dot.source_x];
      }
      plane[y * width + x] = ink;
    }
  }
}

void describe(const StripScreening& strip, const std::vector<float>& plane, PreThresholdCapture& capture) {
  const ChokeContext* choke = strip.white_choke != nullptr ? strip.white_choke : strip.colour_choke;
  capture = {};
  capture.device_choke_used = choke != nullptr;
  capture.algorithm = choke == nullptr               ? "rip_pre_threshold_standard"
                      : strip.white_choke != nullptr ? "rip_pre_threshold_device_domain_adaptive_white"
                                                     : "rip_pre_threshold_device_domain";
  if (choke != nullptr) capture.choke = *choke;
  capture.values.resize(plane.size());
  std::transform(plane.begin(), plane.end(), capture.values.begin(),
                 [](float ink) { return static_cast<std::uint8_t>(std::clamp(ink, 0.0f, kMaxInk) + 0.5f); });
}

}  // namespace

DropMap PlainScreening::process(const RipEngine::Request& request, PreThresholdCapture& capture) {
  DropMap out;
  screen(engine_.plane_job(request), capture, out);
  return out;
}

void PlainScreening::process_strip(DropMap& out, const RipEngine::Request& request,
                                   PreThresholdCapture& capture) {
  const RipEngine::PlaneJob job = engine_.strip_job(request, nullptr);
  if (job.height() == 0)
    resize_drop_map(out, job.dev_w, 0);
  else
    screen(job, capture, out);
}

void PlainScreening::screen(const RipEngine::PlaneJob& job, PreThresholdCapture& capture, DropMap& out) {
  RipEngine::RowMap rows;
  RowBuffers buffers;
  const RipEngine::AppliedChoke applied = engine_.begin(job);
  const StripScreening strip = engine_.screening_of(job, applied.context(), rows);
  const std::size_t width = job.dev_w, height = job.height();
  resize_drop_map(out, job.dev_w, job.height());
  std::vector<float> plane(width * height);
  RowSampler sampler(strip.sampling, buffers);
  for (std::size_t y = 0; y < height; ++y) sampler.inks(y, plane.data() + y * width);
  if (strip.white_choke != nullptr) clear_outside(strip.white_choke->keep, plane);
  if (strip.colour_choke != nullptr) choke_colour_plane(*strip.colour_choke, plane);
  describe(strip, plane, capture);
  capture.width = job.dev_w;
  capture.height = job.height();
  for (std::size_t y = 0; y < height; ++y) {
    strip.sampling.kernels->encode_row(plane.data() + y * width, width, buffers.base.data(),
                                       buffers.threshold.data());
    screen_codes(strip, {false, buffers.base.data(), buffers.threshold.data()}, mask_row(strip, y),
                 out.data.data() + y * width);
  }
}

}  // namespace nvo
