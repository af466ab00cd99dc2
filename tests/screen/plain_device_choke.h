#pragma once

// The white choke on the device grid as it is defined, a byte a dot and one displacement after the other: the
// reference for the fast version.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "screen/choke_context.h"
#include "screen/choke_offsets.h"
#include "screen/device_choke.h"
#include "screen/device_grid.h"

namespace nvo {

inline constexpr std::uint32_t kNoSource = 0xFFFFFFFF;

/// The masks of a `ChokeContext`, 255 where a dot is set, and per dot the index of the one whose colour it
/// takes.
struct PlainChoke {
  using Mask = std::vector<std::uint8_t>;
  std::uint32_t width = 0, height = 0;
  float radius_in = 0.0f;
  bool adaptive = false, protect_light = false;
  std::uint32_t min_width_dots = 0;
  Mask colour_core, exempt, grown, support, keep, light;
  std::vector<std::uint32_t> source_index;

  bool inside(std::int64_t x, std::int64_t y) const { return x >= 0 && y >= 0 && x < width && y < height; }
  std::size_t index(std::int64_t x, std::int64_t y) const { return static_cast<std::size_t>(y * width + x); }
  bool set(const Mask& mask, std::int64_t x, std::int64_t y) const {
    return inside(x, y) && mask[index(x, y)] != 0;
  }

  void sample(const DeviceChokeInput& in, const DeviceScale& scale);
  Mask erode(const Mask& mask, const std::vector<ChokeOffset>& offsets) const;
  Mask dilate(const Mask& mask, const std::vector<ChokeOffset>& offsets) const;
  bool narrow(std::int64_t x, std::int64_t y) const;
  Mask choke_white(const std::vector<ChokeOffset>& disc);
  bool is_boundary_seed(std::int64_t x, std::int64_t y) const;
  void grow(const std::vector<ChokeOffset>& disc, const Mask& halo);
};

inline void PlainChoke::sample(const DeviceChokeInput& in, const DeviceScale& scale) {
  const std::uint32_t dev_h = device_extent(in.total_src_rows, scale.y);
  const std::uint32_t first = device_rows_of_strip(in.strip_src_y, in.strip_rows, scale.y, dev_h).first;
  for (Mask* mask : {&colour_core, &exempt, &grown}) mask->assign(std::size_t{width} * height, 0);
  if (adaptive) support = keep = colour_core;
  if (protect_light) light = colour_core;
  source_index.assign(colour_core.size(), kNoSource);
  for (std::uint32_t y = 0; y < height; ++y) {
    const std::uint32_t row = std::clamp(nearest_source_index(first + y, dev_h, in.total_src_rows),
                                         in.strip_src_y, in.strip_src_y + in.strip_rows - 1);
    for (std::uint32_t x = 0; x < width; ++x) {
      const std::size_t p =
          std::size_t{row - in.strip_src_y} * in.src_w + nearest_source_index(x, width, in.src_w);
      const std::size_t i = index(x, y);
      const bool e = in.exempt_mask != nullptr && in.exempt_mask[p] != 0;
      const bool colour = in.coverage[p] >= 3;
      if (adaptive && (e || in.support_plane[p] != 0)) support[i] = 255;
      if (protect_light &&
          (in.light_mask != nullptr ? in.light_mask[p] != 0 : in.support_plane[p] != 0 && !colour))
        light[i] = 255;
      if (colour) colour_core[i] = grown[i] = 255;
      if (e)
        exempt[i] = 255;
      else if (colour)
        source_index[i] = static_cast<std::uint32_t>(i);
    }
  }
}

inline PlainChoke::Mask PlainChoke::erode(const Mask& mask, const std::vector<ChokeOffset>& offsets) const {
  Mask out(mask.size(), 0);
  for (std::int64_t y = 0; y < height; ++y)
    for (std::int64_t x = 0; x < width; ++x)
      if (set(mask, x, y) &&
          std::ranges::all_of(offsets, [&](const ChokeOffset& o) { return set(mask, x + o.dx, y + o.dy); }))
        out[index(x, y)] = 255;
  return out;
}

inline PlainChoke::Mask PlainChoke::dilate(const Mask& mask, const std::vector<ChokeOffset>& offsets) const {
  Mask out(mask.size(), 0);
  for (std::int64_t y = 0; y < height; ++y)
    for (std::int64_t x = 0; x < width; ++x)
      if (std::ranges::any_of(offsets, [&](const ChokeOffset& o) { return set(mask, x + o.dx, y + o.dy); }))
        out[index(x, y)] = 255;
  return out;
}

inline bool PlainChoke::narrow(std::int64_t x, std::int64_t y) const {
  for (const auto& [dx, dy] : {std::pair{1, 0}, std::pair{0, 1}}) {
    std::uint32_t count = 1;
    for (const int sign : {-1, 1})
      for (std::uint32_t step = 1; step <= min_width_dots && count <= min_width_dots; ++step) {
        if (!set(support, x + std::int64_t{sign} * dx * step, y + std::int64_t{sign} * dy * step)) break;
        ++count;
      }
    if (count <= min_width_dots) return true;
  }
  return false;
}

inline PlainChoke::Mask PlainChoke::choke_white(const std::vector<ChokeOffset>& disc) {
  std::vector<ChokeOffset> square;
  // A square that reaches past the plane from every dot may as well reach just so far.
  const auto h = static_cast<std::int32_t>(std::min(min_width_dots / 2, std::max(width, height)));
  for (std::int32_t dy = -h; dy <= h; ++dy)
    for (std::int32_t dx = -h; dx <= h; ++dx) square.push_back({dx, dy, 0.0, 0});
  const Mask eroded = erode(support, disc);
  const Mask opened = h == 0 ? eroded : dilate(erode(eroded, square), square);
  const Mask restored = dilate(opened, disc);
  Mask thin(support.size(), 0);
  for (std::size_t i = 0; i < support.size(); ++i) {
    const bool is_protected = support[i] != 0 && protect_light && light[i] != 0;
    const bool core = !is_protected && eroded[i] != 0 && restored[i] != 0;
    const bool is_narrow = support[i] != 0 && !is_protected && restored[i] == 0 &&
                           narrow(static_cast<std::int64_t>(i % width), static_cast<std::int64_t>(i / width));
    keep[i] = exempt[i] != 0 || is_protected || core || is_narrow ? 255 : 0;
    thin[i] = is_narrow && exempt[i] == 0 ? 255 : 0;
  }
  return dilate(thin, disc);
}

inline bool PlainChoke::is_boundary_seed(std::int64_t x, std::int64_t y) const {
  if (source_index[index(x, y)] != index(x, y)) return false;
  for (int dy = -1; dy <= 1; ++dy)
    for (int dx = -1; dx <= 1; ++dx)
      if (inside(x + dx, y + dy) && !set(colour_core, x + dx, y + dy)) return true;
  return false;
}

inline void PlainChoke::grow(const std::vector<ChokeOffset>& disc, const Mask& halo) {
  std::vector<std::size_t> seeds;
  for (std::size_t i = 0; i < source_index.size(); ++i)
    if (is_boundary_seed(static_cast<std::int64_t>(i % width), static_cast<std::int64_t>(i / width)))
      seeds.push_back(i);
  for (std::size_t from = 0; from < disc.size();) {
    std::size_t to = from;
    while (to < disc.size() && disc[to].group == disc[from].group) ++to;
    for (const std::size_t seed : seeds) {
      for (std::size_t o = from; o < to; ++o) {
        const std::int64_t x = static_cast<std::int64_t>(seed % width) + disc[o].dx;
        const std::int64_t y = static_cast<std::int64_t>(seed / width) + disc[o].dy;
        if (!inside(x, y)) continue;
        const std::size_t t = index(x, y);
        if (colour_core[t] != 0 || exempt[t] != 0 || (adaptive && halo[t] == 0) ||
            source_index[t] != kNoSource)
          continue;
        source_index[t] = static_cast<std::uint32_t>(seed);
        grown[t] = 255;
      }
    }
    from = to;
  }
}

inline PlainChoke plain_device_choke(const DeviceChokeInput& in, const DeviceChokeParams& params) {
  const DeviceScale scale(params.src_dpi, params.x_dpi, params.y_dpi);
  const DeviceRows rows =
      device_rows_of_strip(in.strip_src_y, in.strip_rows, scale.y, device_extent(in.total_src_rows, scale.y));
  PlainChoke choke;
  choke.width = device_extent(in.src_w, scale.x);
  choke.height = rows.end - rows.first;
  if (choke.height == 0) return choke;
  if (params.amount_px_at_300dpi > 0.0f) choke.radius_in = params.amount_px_at_300dpi / 300.0f;
  choke.adaptive = params.adaptive && in.support_plane != nullptr;
  choke.min_width_dots = choke.adaptive ? std::max(params.min_width_dots, 1u) : 0;
  choke.protect_light = choke.adaptive && params.protect_light;
  choke.sample(in, scale);
  if (!(choke.radius_in > 0.0f)) {
    choke.keep = choke.support;
    return choke;
  }
  const auto disc = choke_offsets(params.x_dpi, params.y_dpi, choke.radius_in);
  const PlainChoke::Mask halo = choke.adaptive ? choke.choke_white(disc) : PlainChoke::Mask{};
  choke.grow(disc, halo);
  return choke;
}

/// The plain form of a context.
inline PlainChoke to_plain(const ChokeContext& context) {
  PlainChoke plain;
  plain.width = context.width;
  plain.height = context.height;
  plain.radius_in = context.radius_in;
  plain.adaptive = context.adaptive;
  plain.protect_light = context.protect_light;
  plain.min_width_dots = context.min_width_dots;
  const std::size_t dots = std::size_t{context.width} * context.height;
  const auto bytes = [&](const BitPlane& plane, PlainChoke::Mask& mask) {
    for (std::size_t i = 0; i < dots && !plane.empty(); ++i)
      mask.push_back(plane.test(i % context.width, i / context.width) ? 255 : 0);
  };
  bytes(context.colour_core, plain.colour_core);
  bytes(context.exempt, plain.exempt);
  if (context.exempt.empty()) plain.exempt.assign(dots, 0);
  bytes(context.grown, plain.grown);
  bytes(context.support, plain.support);
  bytes(context.keep, plain.keep);
  bytes(context.light, plain.light);
  plain.source_index.assign(dots, kNoSource);
  for (std::size_t i = 0; i < dots; ++i)
    if (plain.colour_core[i] != 0 && plain.exempt[i] == 0)
      plain.source_index[i] = static_cast<std::uint32_t>(i);
  for (std::size_t y = 0; y < context.height; ++y)
    for (const RingDot& dot : context.ring_of_row(y))
      plain.source_index[y * context.width + dot.x] =
          static_cast<std::uint32_t>(std::size_t{dot.source_y} * context.width + dot.source_x);
  return plain;
}

}  // namespace nvo
