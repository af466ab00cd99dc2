#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "screen/choke/choke_context.h"
#include "screen/drop_map.h"
#include "screen/mask_cache.h"
#include "screen/rip_engine.h"

namespace nvo::test {

/// Screening dot by dot over a whole f32 device plane: slow, obvious, and what the engine has to equal.
class PlainRipEngine {
 public:
  struct Strip {
    const std::vector<std::uint8_t>& src;
    std::uint32_t src_w, rows, src_y, total_rows;
    std::int32_t channel;
    bool whole;  ///< as `process` places it
  };

  explicit PlainRipEngine(const RipEngine& engine) : p_(engine.params()), masks_(engine.masks()) {}

  /// `choke` is null where no choke applies.
  DropMap screen(const Strip& strip, const ChokeContext* choke) const {
    const float scale_x = static_cast<float>(p_.src_dpi) / static_cast<float>(p_.x_dpi);
    const float scale_y = static_cast<float>(p_.src_dpi) / static_cast<float>(p_.y_dpi);
    const long dev_w = std::max(std::lround(static_cast<float>(strip.src_w) / scale_x), 1L);
    const long dev_h = std::max(std::lround(static_cast<float>(strip.total_rows) / scale_y), 1L);
    const long first =
        strip.whole ? 0 : std::min(dev_h, std::lround(static_cast<float>(strip.src_y) / scale_y));
    const float bottom = static_cast<float>(strip.src_y + strip.rows);
    const long end = strip.whole ? dev_h : std::min(dev_h, std::max(std::lround(bottom / scale_y), first));
    DropMap out = {static_cast<std::uint32_t>(dev_w), static_cast<std::uint32_t>(end - first), {}};

    const bool white = p_.n_channels >= 5 && strip.channel >= 4;
    const bool hard = (white ? p_.white_resampling : p_.color_resampling) == ResamplingMode::hard;
    const std::vector<float> plane = hard ? nearest_plane(strip, dev_w, dev_h, first, end)
                                          : area_plane(strip, scale_x, scale_y, dev_w, first, end);
    for (long y = 0; y < end - first; ++y) {
      std::vector<RingDot> ring;
      if (choke != nullptr && !white) ring = choke->ring_of_row(static_cast<std::size_t>(y));
      for (long x = 0; x < dev_w; ++x) {
        float v = plane[static_cast<std::size_t>(y * dev_w + x)];
        if (choke != nullptr) v = choked(plane, *choke, white, ring, v, x, y);
        out.data.push_back(level(v, masks_.at(strip.channel, x, first + y)));
      }
    }
    return out;
  }

  static std::uint8_t level(float v, std::uint8_t mask) {
    const float q = v / 85.0f;
    const int base = static_cast<int>(q);
    const float frac = q - static_cast<float>(base);
    return static_cast<std::uint8_t>(std::min(frac > static_cast<float>(mask) / 255.0f ? base + 1 : base, 3));
  }

 private:
  float ink(std::int32_t channel, std::uint8_t byte) const {
    return p_.linear_lut[static_cast<std::size_t>(channel)][byte];
  }

  static long nearest(long i, long d, long s) {
    if (d == 0 || s < 2) return 0;
    const double at =
        (static_cast<double>(s) / static_cast<double>(d)) * (static_cast<double>(i) + 0.5) - 0.5;
    return std::llround(std::min(std::max(at, 0.0), static_cast<double>(s - 1)));
  }

  std::vector<float> nearest_plane(const Strip& s, long dev_w, long dev_h, long first, long end) const {
    std::vector<float> plane;
    for (long y = first; y < end; ++y) {
      const long row =
          std::clamp<long>(nearest(y, dev_h, s.total_rows), s.src_y, s.src_y + s.rows - 1) - s.src_y;
      for (long x = 0; x < dev_w; ++x)
        plane.push_back(
            ink(s.channel, s.src[static_cast<std::size_t>(row * s.src_w + nearest(x, dev_w, s.src_w))]));
    }
    return plane;
  }

  std::vector<float> area_plane(const Strip& s, float scale_x, float scale_y, long dev_w, long first,
                                long end) const {
    const float width = static_cast<float>(s.src_w), rows = static_cast<float>(s.rows);
    std::vector<float> grid;  // source rows at device width
    for (std::uint32_t row = 0; row < s.rows; ++row) {
      for (long x = 0; x < dev_w; ++x) {
        const float a = std::clamp(static_cast<float>(x) * scale_x, 0.0f, width);
        const float b = std::clamp(static_cast<float>(x + 1) * scale_x, 0.0f, width);
        float sum = 0.0f;
        if (b > a) {
          const auto stop = std::min(static_cast<long>(std::ceil(b)), static_cast<long>(s.src_w));
          for (auto i = static_cast<long>(std::floor(a)); i < stop; ++i)
            sum += ink(s.channel, s.src[static_cast<std::size_t>(row * s.src_w + i)]) * weight(a, b, i);
        }
        grid.push_back(std::clamp(sum, 0.0f, 255.0f));
      }
    }
    std::vector<float> plane;
    for (long y = first; y < end; ++y) {
      const float a = std::clamp(static_cast<float>(y) * scale_y - static_cast<float>(s.src_y), 0.0f, rows);
      const float b =
          std::clamp(static_cast<float>(y + 1) * scale_y - static_cast<float>(s.src_y), 0.0f, rows);
      const auto top = static_cast<long>(std::floor(a));
      const auto last = std::min(static_cast<long>(std::ceil(b)), static_cast<long>(s.rows)) - 1;
      for (long x = 0; x < dev_w; ++x) {
        float sum = 0.0f;
        for (long i = top; b > a && i <= last; ++i) {
          const float filtered = grid[static_cast<std::size_t>(i * dev_w + x)];
          sum = top == last ? filtered : sum + filtered * weight(a, b, i);
        }
        plane.push_back(sum);
      }
    }
    return plane;
  }

  static float weight(float a, float b, long s) {
    return std::max(std::min(b, static_cast<float>(s + 1)) - std::max(a, static_cast<float>(s)), 0.0f) /
           (b - a);
  }

  static float choked(const std::vector<float>& plane, const ChokeContext& choke, bool white,
                      const std::vector<RingDot>& ring, float v, long at_x, long at_y) {
    const auto x = static_cast<std::size_t>(at_x), y = static_cast<std::size_t>(at_y);
    if (white) return choke.keep.test(x, y) ? v : 0.0f;
    if (!choke.grown.test(x, y)) return 0.0f;
    if (choke.colour_core.test(x, y)) return v;
    const RingDot& dot = *std::ranges::find(ring, x, &RingDot::x);
    return plane[std::size_t{dot.source_y} * choke.width + dot.source_x];
  }

  const RipEngineParams& p_;
  const MaskCache& masks_;
};

}  // namespace nvo::test
