#include "screen/rip_engine.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "core/log.h"
#include "core/platform/clock.h"
#include "core/threads/parallel.h"
#include "screen/kernels/instruction_set.h"
#include "screen/plane_job.h"
#include "screen/row_screener.h"

namespace nvo {
namespace {

constexpr std::size_t kCurveEntries = 256;
constexpr float kMaxInk = 255.0f;
constexpr std::int32_t kFirstWhiteChannel = 4;
constexpr std::size_t kProgressRows = 2000;

struct DefaultCurve {
  float gain, gamma;
};
constexpr DefaultCurve kDefaultCurves[] = {{220.0f, 1.2f}, {220.0f, 1.2f}, {190.0f, 1.4f}, {150.0f, 1.5f}};

std::vector<float> default_curve(const DefaultCurve& shape) {
  std::vector<float> curve(kCurveEntries);
  for (std::size_t i = 0; i < kCurveEntries; ++i)
    curve[i] = std::pow(static_cast<float>(i) / kMaxInk, shape.gamma) * shape.gain;
  return curve;
}

std::vector<float> identity_curve() {
  std::vector<float> curve(kCurveEntries);
  for (std::size_t i = 0; i < kCurveEntries; ++i) curve[i] = static_cast<float>(i);
  return curve;
}

void mend_curve(std::vector<float>& curve, std::size_t channel) {
  if (curve.size() != kCurveEntries) {
    log_warn("RipEngine: linear_lut channel ", channel, " has ", curve.size(),
             " values; replacing with identity 256-entry LUT");
    curve = identity_curve();
    return;
  }
  for (float& ink : curve) ink = std::isfinite(ink) ? std::clamp(ink, 0.0f, kMaxInk) : 0.0f;
}

RipEngineParams checked(RipEngineParams params) {
  if (params.src_dpi == 0 || params.x_dpi == 0 || params.y_dpi == 0)
    throw std::invalid_argument("RipEngine: src_dpi/x_dpi/y_dpi must be > 0");
  if (params.n_channels <= 0) throw std::invalid_argument("RipEngine: n_channels must be > 0");
  auto& curves = params.linear_lut;
  if (curves.empty())
    for (const DefaultCurve& shape : kDefaultCurves) curves.push_back(default_curve(shape));
  const auto channels = static_cast<std::size_t>(params.n_channels);
  while (curves.size() < channels) curves.push_back(identity_curve());
  for (std::size_t channel = 0; channel < channels; ++channel) mend_curve(curves[channel], channel);
  return params;
}

/// Every channel gets a mask of its own.
MaskParams mask_params(const RipEngineParams& params) {
  MaskParams masks = params;
  masks.n_masks = std::max(masks.n_masks, static_cast<std::uint32_t>(params.n_channels));
  return masks;
}

bool covers(const BitPlane& plane, std::uint32_t width, std::uint32_t height) {
  return plane.width == width && plane.height == height;
}

/// Completes a row of `out` that holds its dots, or none if it is `blank`.
void finish_packed_row(bool blank, std::uint8_t* row, const PackedRows& out) {
  const std::size_t packed = packed_dots_bytes(out.width);
  if (blank) std::memset(row, 0, packed);
  std::memset(row + packed, 0, out.padding);
  for (const std::ptrdiff_t copy : out.copies) std::memcpy(row + copy, row, packed + out.padding);
}

}  // namespace

RipEngine::RipEngine(RipEngineParams params)
    : params_(checked(std::move(params))),
      masks_(mask_params(params_), params_.cache_dir),
      no_mask_(params_.tile_w),
      scale_(params_.src_dpi, params_.x_dpi, params_.y_dpi) {}

void RipEngine::ensure_column_taps(std::uint32_t src_w, std::uint32_t dev_w) {
  if (taps_.src_w != src_w || taps_.dev_w != dev_w) taps_ = build_column_taps(src_w, dev_w, scale_.x);
}

DropMap RipEngine::process(const Request& request) {
  const PlaneJob job = plane_job(request);
  log_info("RipEngine ch=", job.channel, " src=", job.src.width(), "x", job.src.height(), " dev=", job.dev_w,
           "x", job.dev_h);
  DropMap out;
  screen(job, out);
  log_info("RipEngine ch=", job.channel, " done.");
  return out;
}

void RipEngine::process_strip(DropMap& out, const Request& request, const DeviceRowWindow* window) {
  const PlaneJob job = strip_job(request, window);
  if (job.window.rows == 0)
    resize_drop_map(out, job.dev_w, 0);
  else
    screen(job, out);
}

void RipEngine::pack_strip(const PackedRows& out, const Request& request, const DeviceRowWindow& window) {
  const PlaneJob job = strip_job(request, &window);
  if (job.dev_w != out.width) throw std::invalid_argument("RipEngine::pack_strip: width mismatch");
  if (job.window.rows == 0) return;
  screen_rows(job, [&](RowScreener& screener, RowBuffers&, std::size_t y, std::size_t row) {
    std::uint8_t* const target = out.top + static_cast<std::ptrdiff_t>(row) * out.step;
    const bool has_drops = screener.screen_packed(y, target);
    const std::uint64_t start = out.pack_ns ? platform::monotonic_nanoseconds() : 0;
    finish_packed_row(!has_drops, target, out);
    if (out.pack_ns) *out.pack_ns += platform::monotonic_nanoseconds() - start;
  });
}

/// Checks a call on a whole plane.
RipEngine::PlaneJob RipEngine::plane_job(const Request& request) const {
  if (request.src.null() || request.src.width() == 0 || request.src.height() == 0)
    throw std::invalid_argument("RipEngine::process: invalid source buffer");
  if (request.channel < 0 || request.channel >= params_.n_channels)
    throw std::invalid_argument("RipEngine::process: channel out of range");
  PlaneJob job{request};
  job.whole_plane = true;
  job.strip_src_y = 0;
  job.total_src_rows = request.src.height();
  place(job);
  job.dev_rows = {0, job.dev_h};
  job.window = {0, job.dev_h};
  return job;
}

/// Checks a call on a strip and says where the strip lies.
RipEngine::PlaneJob RipEngine::strip_job(const Request& request, const DeviceRowWindow* window) const {
  const PlaneView& src = request.src;
  const std::uint32_t total = request.total_src_rows;
  if (src.null() || src.width() == 0 || src.height() == 0 || total == 0)
    throw std::invalid_argument("RipEngine::process_strip: invalid source strip");
  if (request.channel < 0 || request.channel >= params_.n_channels)
    throw std::invalid_argument("RipEngine::process_strip: channel out of range");
  if (request.strip_src_y >= total || src.height() > total - request.strip_src_y)
    throw std::invalid_argument("RipEngine::process_strip: strip source bounds are invalid");
  PlaneJob job{request};
  place(job);
  job.dev_rows = device_rows_of_strip(job.strip_src_y, src.height(), scale_.y, job.dev_h);
  job.window = window != nullptr ? *window : DeviceRowWindow{0, job.height()};
  if (job.window.top > job.height() || job.window.rows > job.height() - job.window.top)
    throw std::invalid_argument("RipEngine::process_strip: device row window is invalid");
  return job;
}

ChokeContext RipEngine::prepare_device_white(const DeviceChokeInput& strip, ChokeContext spent) const {
  const PlaneView& coverage = strip.coverage;
  const DeviceRows rows = device_rows_of_strip(strip.strip_src_y, coverage.height(), scale_.y,
                                               device_extent(strip.total_src_rows, scale_.y));
  const DeviceChokeParams params{.src_dpi = params_.src_dpi,
                                 .x_dpi = params_.x_dpi,
                                 .y_dpi = params_.y_dpi,
                                 .choke = params_,
                                 .threads = params_.threads.row_threads(
                                     rows.end - rows.first, device_extent(coverage.width(), scale_.x))};
  return prepare_device_choke(strip, params, std::move(spent));
}

/// Fills in what follows from the engine's parameters: the kind of sampling and the size of the device grid.
void RipEngine::place(PlaneJob& job) const {
  job.white = params_.n_channels > kFirstWhiteChannel && job.channel >= kFirstWhiteChannel;
  job.hard = (job.white ? params_.white_resampling : params_.color_resampling) == ResamplingMode::hard;
  job.dev_w = device_extent(job.src.width(), scale_.x);
  job.dev_h = device_extent(job.total_src_rows, scale_.y);
}

bool RipEngine::colour_choke_active(const PlaneJob& job) const {
  return !job.white && params_.is_active() &&
         (params_.is_adaptive() || params_.white_choke_strategy == WhiteChokeStrategy::production) &&
         !job.coverage_plane.null();
}

bool RipEngine::white_choke_active(const PlaneJob& job) const {
  return job.white && params_.is_active() && params_.is_adaptive() && job.choke != nullptr &&
         job.choke->adaptive && covers(job.choke->keep, job.choke->width, job.choke->height);
}

/// A context of another size than the result belongs to another strip and is left aside without a word.
RipEngine::AppliedChoke RipEngine::select_choke(const PlaneJob& job) const {
  const auto fits = [&](const ChokeContext& choke) {
    return choke.width == job.dev_w && choke.height == job.height();
  };
  const auto fits_colour = [&](const ChokeContext& choke) {
    return fits(choke) && covers(choke.grown, job.dev_w, job.height()) &&
           covers(choke.colour_core, job.dev_w, job.height());
  };
  if (white_choke_active(job)) return fits(*job.choke) ? AppliedChoke(job.choke) : AppliedChoke();
  if (!colour_choke_active(job)) return {};
  if (job.choke != nullptr) return fits_colour(*job.choke) ? AppliedChoke(job.choke) : AppliedChoke();
  ChokeContext own = prepare_device_white({.coverage = job.coverage_plane,
                                           .exempt_mask = {},
                                           .support_plane = {},
                                           .light_mask = {},
                                           .strip_src_y = job.strip_src_y,
                                           .total_src_rows = job.total_src_rows});
  return fits_colour(own) ? AppliedChoke(std::move(own)) : AppliedChoke();
}

void RipEngine::log_choke(const PlaneJob& job, const ChokeContext& choke) const {
  const float amount = params_.white_choke_amount_px_at_300dpi;
  if (job.whole_plane && job.white) {
    log_info("RipEngine ch=", job.channel, " applying adaptive white choke pre-threshold",
             " amount_px@300=", amount, " radius_in=", choke.radius_in,
             " min_width_dots=", choke.min_width_dots);
  } else if (job.whole_plane) {
    log_info("RipEngine ch=", job.channel, " applying device-domain choke pre-threshold",
             " amount_px@300=", amount, " radius_in=", choke.radius_in, " radius_px_x=", choke.radius_px_x,
             " radius_px_y=", choke.radius_px_y);
  } else if (job.white) {
    log_debug("RipEngine strip ch=", job.channel, " adaptive white choke pre-threshold",
              " amount_px@300=", amount, " radius_px_x=", choke.radius_px_x,
              " radius_px_y=", choke.radius_px_y, " min_width_dots=", choke.min_width_dots);
  } else {
    log_debug("RipEngine strip ch=", job.channel, " device-domain choke pre-threshold",
              " amount_px@300=", amount, " radius_px_x=", choke.radius_px_x,
              " radius_px_y=", choke.radius_px_y);
  }
}

void RipEngine::screen(const PlaneJob& job, DropMap& out) {
  const bool out_is_zero = resize_drop_map(out, job.dev_w, job.window.rows) == DropMapContents::zero;
  screen_rows(job, [&](RowScreener& screener, RowBuffers&, std::size_t y, std::size_t row) {
    std::uint8_t* const dots = out.data.data() + row * job.dev_w;
    if (!screener.screen(y, dots) && !out_is_zero) std::memset(dots, 0, job.dev_w);
    log_progress(job, row);
  });
}

/// Gets everything ready and lets `sink(screener, buffers, y, row)` take each row of the window: row `row` of
/// it is row `y` of the strip. Rows ascend within a worker.
template <class Sink>
void RipEngine::screen_rows(const PlaneJob& job, const Sink& sink) {
  ProcessScratch local;
  ProcessScratch& scratch = job.scratch != nullptr ? *job.scratch : local;
  const AppliedChoke applied = begin(job);
  const StripScreening strip = screening_of(job, applied.context(), scratch.rows);
  const std::size_t workers = row_workers(job);
  if (scratch.workers.size() < workers) scratch.workers.resize(workers);
  parallel_ranges(job.window.rows, workers, [&](std::size_t first, std::size_t end, std::size_t worker) {
    RowBuffers& buffers = scratch.workers[worker];
    RowScreener screener(strip, buffers);
    for (std::size_t row = first; row < end; ++row) sink(screener, buffers, job.window.top + row, row);
  });
}

/// Readies the tap table, chooses the choke and says what is going to be done.
RipEngine::AppliedChoke RipEngine::begin(const PlaneJob& job) {
  // A strip that samples by nearest pixel leaves the table to the channels that run beside it.
  if (job.whole_plane || !job.hard) ensure_column_taps(job.src.width(), job.dev_w);
  if (job.white_special())
    Logger::instance().log(job.whole_plane ? LogLevel::info : LogLevel::debug,
                           job.whole_plane ? "RipEngine ch=" : "RipEngine strip ch=", job.channel,
                           " using white-special nearest-like sampling path");
  AppliedChoke applied = select_choke(job);
  if (applied.context() != nullptr && !job.white_special()) log_choke(job, *applied.context());
  return applied;
}

std::size_t RipEngine::row_workers(const PlaneJob& job) const {
  if (job.whole_plane) return 1;
  return params_.threads.shared_row_threads(job.height(), job.dev_w);
}

StripScreening RipEngine::screening_of(const PlaneJob& job, const ChokeContext* choke, RowMap& rows) const {
  StripScreening strip{.sampling = {},
                       .masks = &masks_,
                       .no_mask = no_mask_,
                       .channel = static_cast<std::uint32_t>(job.channel),
                       .first_device_row = job.dev_rows.first,
                       .colour_choke = job.white ? nullptr : choke,
                       .white_choke = job.white ? choke : nullptr};
  StripSampling& sampling = strip.sampling;
  sampling.kernels = &active_instruction_set().screening;
  sampling.source = job.src;
  sampling.dev_w = job.dev_w;
  sampling.rows = &rows.spans;
  set_curve(sampling, params_.linear_lut[strip.channel].data());
  map_rows(job, rows);
  if (job.hard) {
    set_nearest_columns(sampling);
  } else {
    sampling.taps = &taps_;
  }
  return strip;
}

void RipEngine::map_rows(const PlaneJob& job, RowMap& rows) const {
  const RowMap::Key key{job.hard,  scale_.y,        job.dev_rows.first, job.dev_rows.end,
                        job.dev_h, job.strip_src_y, job.src.height(),   job.total_src_rows};
  if (rows.key == key) return;
  rows.spans.resize(job.height());
  if (job.hard)
    nearest_row_spans(rows.spans, job.dev_rows.first, job.dev_h, job.total_src_rows, job.strip_src_y,
                      job.src.height());
  else
    area_row_spans(rows.spans, job.dev_rows.first, scale_.y, job.strip_src_y, job.src.height());
  rows.key = key;
}

void RipEngine::log_progress(const PlaneJob& job, std::size_t y) const {
  if (job.whole_plane && y % kProgressRows == kProgressRows - 1)
    log_debug("  ch=", job.channel, " row ", y + 1, "/", job.dev_h);
}

}  // namespace nvo
