#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "screen/choke_context.h"
#include "screen/choke_offsets.h"
#include "screen/device_choke.h"
#include "screen/device_grid.h"

namespace nvo::test {

/// The white choke on the device grid as it is defined, a byte a dot and one displacement after the other:
/// the reference for the fast version.
struct PlainChoke {
  using Mask = std::vector<std::uint8_t>;
  using Offsets = std::vector<ChokeOffset>;
  static constexpr std::uint32_t kNoSource = 0xFFFFFFFF;

  std::uint32_t width = 0, height = 0, min_width_dots = 0;
  float radius_in = 0.0f;
  bool adaptive = false, protect_light = false;
  Mask colour_core, exempt, grown, support, keep, light;
  std::vector<std::uint32_t> source_index;  ///< of the dot whose colour a dot takes

  PlainChoke(const DeviceChokeInput& in, const DeviceChokeParams& params) {
    const DeviceScale scale(params.src_dpi, params.x_dpi, params.y_dpi);
    const std::uint32_t dev_h = device_extent(in.total_src_rows, scale.y);
    const DeviceRows rows = device_rows_of_strip(in.strip_src_y, in.strip_rows, scale.y, dev_h);
    width = device_extent(in.src_w, scale.x);
    height = rows.end - rows.first;
    if (height == 0) return;
    radius_in = std::max(params.amount_px_at_300dpi, 0.0f) / 300.0f;
    adaptive = params.adaptive && in.support_plane != nullptr;
    min_width_dots = adaptive ? std::max(params.min_width_dots, 1u) : 0;
    protect_light = adaptive && params.protect_light;
    sample(in, rows.first, dev_h);
    keep = support;
    if (radius_in == 0.0f) return;
    const Offsets disc = choke_offsets(params.x_dpi, params.y_dpi, radius_in);
    grow(disc, adaptive ? choke_white(disc) : Mask(source_index.size(), 1));
  }

  /// The plain form of a context.
  explicit PlainChoke(const ChokeContext& context)
      : width(context.width),
        height(context.height),
        min_width_dots(context.min_width_dots),
        radius_in(context.radius_in),
        adaptive(context.adaptive),
        protect_light(context.protect_light),
        exempt(std::size_t{width} * height),
        source_index(exempt.size(), kNoSource) {
    const auto unpack = [&](const BitPlane& plane, Mask& mask) {
      if (!plane.empty()) mask.resize(source_index.size());
      for (std::size_t i = 0; i < mask.size() && !plane.empty(); ++i)
        mask[i] = plane.test(i % width, i / width);
    };
    unpack(context.colour_core, colour_core);
    unpack(context.exempt, exempt);
    unpack(context.grown, grown);
    unpack(context.support, support);
    unpack(context.keep, keep);
    unpack(context.light, light);
    for (std::uint32_t i = 0; i < source_index.size(); ++i)
      if (colour_core[i] && !exempt[i]) source_index[i] = i;
    for (std::size_t y = 0; y < height; ++y)
      for (const RingDot& dot : context.ring_of_row(y))
        source_index[y * width + dot.x] = dot.source_y * width + dot.source_x;
  }

  bool operator==(const PlainChoke&) const = default;

 private:
  std::size_t index(std::int64_t x, std::int64_t y) const { return static_cast<std::size_t>(y * width + x); }
  bool inside(std::int64_t x, std::int64_t y) const { return x >= 0 && y >= 0 && x < width && y < height; }
  bool set(const Mask& mask, std::int64_t x, std::int64_t y) const {
    return inside(x, y) && mask[index(x, y)] != 0;
  }

  void sample(const DeviceChokeInput& in, std::uint32_t first, std::uint32_t dev_h) {
    const std::size_t dots = std::size_t{width} * height;
    for (Mask* mask : {&colour_core, &exempt, &grown}) mask->resize(dots);
    if (adaptive) support.resize(dots);
    if (protect_light) light.resize(dots);
    source_index.assign(dots, kNoSource);
    for (std::uint32_t i = 0; i < dots; ++i) {
      const std::uint32_t row = std::clamp(nearest_source_index(first + i / width, dev_h, in.total_src_rows),
                                           in.strip_src_y, in.strip_src_y + in.strip_rows - 1);
      const std::size_t p =
          std::size_t{row - in.strip_src_y} * in.src_w + nearest_source_index(i % width, width, in.src_w);
      exempt[i] = in.exempt_mask != nullptr && in.exempt_mask[p] != 0;
      colour_core[i] = grown[i] = in.coverage[p] >= 3;
      if (adaptive) support[i] = exempt[i] || in.support_plane[p] != 0;
      if (protect_light)
        light[i] =
            in.light_mask != nullptr ? in.light_mask[p] != 0 : in.support_plane[p] != 0 && !colour_core[i];
      if (colour_core[i] && !exempt[i]) source_index[i] = i;
    }
  }

  /// Dots for which all displaced dots are set, or any of them.
  Mask morph(const Mask& mask, const Offsets& offsets, bool all) const {
    Mask out(mask.size());
    for (std::size_t i = 0; i < out.size(); ++i) {
      const auto x = static_cast<std::int64_t>(i % width), y = static_cast<std::int64_t>(i / width);
      const auto is_set = [&](const ChokeOffset& o) { return set(mask, x + o.dx, y + o.dy); };
      out[i] = all ? std::ranges::all_of(offsets, is_set) : std::ranges::any_of(offsets, is_set);
    }
    return out;
  }

  /// Whether the support is no wider than the minimum width here, across or along.
  bool narrow(std::int64_t x, std::int64_t y) const {
    const auto run_fits = [&](std::int64_t dx, std::int64_t dy) {
      std::int64_t run = 1;
      for (const int sign : {-1, 1})
        for (std::int64_t s = sign; run <= min_width_dots && set(support, x + s * dx, y + s * dy); s += sign)
          ++run;
      return run <= min_width_dots;
    };
    return run_fits(1, 0) || run_fits(0, 1);
  }

  /// Fills `keep`; returns where colour may grow, which is about the thin white.
  Mask choke_white(const Offsets& disc) {
    // A square that reaches past the plane from every dot may as well reach just so far.
    const auto half = static_cast<std::int32_t>(std::min(min_width_dots / 2, std::max(width, height)));
    Offsets square;
    for (std::int32_t dy = -half; dy <= half; ++dy)
      for (std::int32_t dx = -half; dx <= half; ++dx) square.push_back({dx, dy, 0.0, 0});
    const Mask eroded = morph(support, disc, true);
    const Mask restored = morph(morph(morph(eroded, square, true), square, false), disc, false);
    Mask thin(support.size());
    for (std::size_t i = 0; i < support.size(); ++i) {
      const bool is_protected = support[i] && protect_light && light[i];
      const bool is_core = eroded[i] && restored[i];
      const bool is_narrow =
          support[i] && !is_protected && !restored[i] &&
          narrow(static_cast<std::int64_t>(i % width), static_cast<std::int64_t>(i / width));
      keep[i] = exempt[i] || is_protected || is_core || is_narrow;
      thin[i] = is_narrow && !exempt[i];
    }
    return morph(thin, disc, false);
  }

  /// A source that a dot without colour lies next to.
  bool is_seed(std::size_t i) const {
    const auto at_x = static_cast<std::int64_t>(i % width), at_y = static_cast<std::int64_t>(i / width);
    for (std::int64_t y = at_y - 1; y <= at_y + 1; ++y)
      for (std::int64_t x = at_x - 1; x <= at_x + 1; ++x)
        if (source_index[i] == i && inside(x, y) && !set(colour_core, x, y)) return true;
    return false;
  }

  /// Group after group of displacements every seed claims what nobody has claimed before it.
  void grow(const Offsets& disc, const Mask& halo) {
    std::vector<std::uint32_t> seeds;
    for (std::uint32_t i = 0; i < source_index.size(); ++i)
      if (is_seed(i)) seeds.push_back(i);
    for (auto from = disc.begin(), to = from; from != disc.end(); from = to) {
      while (to != disc.end() && to->group == from->group) ++to;
      for (const std::uint32_t seed : seeds)
        for (auto o = from; o != to; ++o) {
          const std::int64_t x = std::int64_t{seed % width} + o->dx, y = std::int64_t{seed / width} + o->dy;
          const std::size_t t = inside(x, y) ? index(x, y) : seed;
          if (colour_core[t] || exempt[t] || !halo[t] || source_index[t] != kNoSource) continue;
          source_index[t] = seed;
          grown[t] = 1;
        }
    }
  }
};

}  // namespace nvo::test
