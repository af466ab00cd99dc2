#include "compose/source_grid_choke.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <iterator>
#include <limits>
#include <queue>
#include <tuple>
#include <utility>

#include "core/checked.h"
#include "core/platform/environment.h"
#include "core/text.h"

namespace nvo {
namespace {

constexpr std::size_t kInkPlanes = 4;
constexpr std::uint8_t kInkThreshold = 2;
constexpr std::uint32_t kNone = 0xFFFFFFFF;  // no distance, no origin

struct TokenRule {
  std::string_view token;
  WhiteChokeStrategy strategy;
};

constexpr TokenRule kTokenRules[] = {
    {"baseline", WhiteChokeStrategy::baseline},
    {"current", WhiteChokeStrategy::baseline},
    {"build1009", WhiteChokeStrategy::baseline},
    {"distancemask", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"distancemaskexperimental", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"experimentaldistancemask", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"experimental", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"distmask", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"samegrid", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"samegriddistancemask", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"distancemasksamegrid", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"distancemaskexperimentalsamegrid", WhiteChokeStrategy::legacy_same_grid_distance_mask},
    {"production", WhiteChokeStrategy::production},
    {"prod", WhiteChokeStrategy::production},
    {"default", WhiteChokeStrategy::production},
    {"devicedomain", WhiteChokeStrategy::production},
    {"devicedomainexperimental", WhiteChokeStrategy::production},
    {"device", WhiteChokeStrategy::production},
    {"deviceexperimental", WhiteChokeStrategy::production},
    {"devicedomainchoke", WhiteChokeStrategy::production},
    {"ripdomain", WhiteChokeStrategy::production},
    {"ripdomainexperimental", WhiteChokeStrategy::production},
};

/// Pixels with explicit white: nothing spreads into or across them.
class Barriers {
 public:
  explicit Barriers(const StripBuffer& strip) : marks_(strip.explicit_white) {}
  bool operator[](std::size_t pixel) const { return marks_[pixel] != 0; }

 private:
  const Plane& marks_;
};

struct Position {
  std::int64_t x, y;
};

/// The pixels of a strip by index, row after row.
class Grid {
 public:
  explicit Grid(const StripBuffer& strip) : width_(strip.width), height_(strip.height) {}

  Position position(std::uint32_t pixel) const { return {pixel % width_, pixel / width_}; }

  /// Calls `visit(index, position)` for the up to eight neighbours, row by row from the upper left.
  template <class Visit>
  void for_each_neighbour(std::uint32_t pixel, Visit visit) const {
    const Position centre = position(pixel);
    for (std::int64_t y = centre.y - 1; y <= centre.y + 1; ++y) {
      if (y < 0 || y >= height_) continue;
      for (std::int64_t x = centre.x - 1; x <= centre.x + 1; ++x) {
        if (x < 0 || x >= width_ || (x == centre.x && y == centre.y)) continue;
        visit(static_cast<std::uint32_t>(y * width_ + x), Position{x, y});
      }
    }
  }

 private:
  std::int64_t width_, height_;
};

/// For every pixel the distance to the ink that reaches it, in the measure of the spread, and that ink's
/// index.
struct Reach {
  std::vector<std::uint32_t> distance, origin;

  /// Inked pixels are their own origin at distance 0, all others unreached.
  explicit Reach(const std::vector<std::uint8_t>& mask)
      : distance(mask.size(), kNone), origin(mask.size(), kNone) {
    for (std::size_t i = 0; i < mask.size(); ++i)
      if (mask[i]) {
        distance[i] = 0;
        origin[i] = static_cast<std::uint32_t>(i);
      }
  }
};

/// Distances in 8-connected steps, up to `radius` of them. Among the inks that are equally near, the one with
/// the lowest index is the origin.
Reach reach_by_steps(const Grid& grid, const std::vector<std::uint8_t>& mask, const Barriers& barriers,
                     std::uint32_t radius) {
  Reach reach(mask);
  std::vector<std::uint32_t> queue;
  for (std::uint32_t i = 0; i < mask.size(); ++i)
    if (mask[i]) queue.push_back(i);

  // Inks enter the queue by index, so that within one distance it stays sorted by origin: whichever pixel
  // reaches a neighbour first has the lowest.
  for (std::size_t head = 0; head < queue.size(); ++head) {
    const std::uint32_t pixel = queue[head];
    if (reach.distance[pixel] >= radius) continue;
    grid.for_each_neighbour(pixel, [&](std::uint32_t next, Position) {
      if (barriers[next] || reach.origin[next] != kNone) return;
      reach.distance[next] = reach.distance[pixel] + 1;
      reach.origin[next] = reach.origin[pixel];
      queue.push_back(next);
    });
  }
  return reach;
}

/// Squared Euclidean distances up to `limit`, handed on from neighbour to neighbour. Ties as above.
Reach reach_by_distance(const Grid& grid, const std::vector<std::uint8_t>& mask, const Barriers& barriers,
                        std::uint32_t limit) {
  struct Record {
    std::uint32_t distance, origin, pixel;
    bool operator>(const Record& other) const {
      return std::tie(distance, origin, pixel) > std::tie(other.distance, other.origin, other.pixel);
    }
  };
  Reach reach(mask);
  std::priority_queue<Record, std::vector<Record>, std::greater<>> queue;
  for (std::uint32_t i = 0; i < mask.size(); ++i)
    if (mask[i]) queue.push({0, i, i});

  while (!queue.empty()) {
    const Record record = queue.top();
    queue.pop();
    const bool stale =
        record.distance != reach.distance[record.pixel] || record.origin != reach.origin[record.pixel];
    if (stale) continue;
    const Position origin = grid.position(record.origin);
    grid.for_each_neighbour(record.pixel, [&](std::uint32_t next, Position at) {
      if (barriers[next]) return;
      const std::int64_t dx = at.x - origin.x;
      const std::int64_t dy = at.y - origin.y;
      const std::int64_t squared = dx * dx + dy * dy;
      if (squared > limit) return;
      const auto distance = static_cast<std::uint32_t>(squared);
      if (std::tie(distance, record.origin) >= std::tie(reach.distance[next], reach.origin[next])) return;
      reach.distance[next] = distance;
      reach.origin[next] = record.origin;
      queue.push({distance, record.origin, next});
    });
  }
  return reach;
}

/// Copies the inks of its origin to every pixel that was reached and for which `within(pixel)` holds, and
/// marks it. Origins are inked and so never written, which is why the planes can be read while they change.
template <class Within>
void copy_from_origins(StripBuffer& strip, const Reach& reach, std::vector<std::uint8_t>& mask,
                       Within within) {
  for (std::uint32_t i = 0; i < mask.size(); ++i) {
    if (mask[i] || reach.origin[i] == kNone || !within(i)) continue;
    for (std::size_t plane = 0; plane < kInkPlanes; ++plane)
      strip.planes[plane][i] = strip.planes[plane][reach.origin[i]];
    mask[i] = 255;
  }
}

void spread_by_steps(StripBuffer& strip, float radius, std::vector<std::uint8_t>& mask) {
  const Reach reach = reach_by_steps(Grid(strip), mask, Barriers(strip), choke_radius_px(radius));
  copy_from_origins(strip, reach, mask, [](std::uint32_t) { return true; });
}

void spread_by_distance(StripBuffer& strip, float radius, std::vector<std::uint8_t>& mask) {
  constexpr double kReachBeyondRadius =
      0.75;  // a pixel's edge may be within the radius when its centre is not
  constexpr float kRadiusTolerance = 0.00001f;
  const Grid grid(strip);
  const double reach_radius = static_cast<double>(radius) + kReachBeyondRadius;
  const double limit = std::min(std::ceil(reach_radius * reach_radius), static_cast<double>(kNone - 1));
  const Reach reach = reach_by_distance(grid, mask, Barriers(strip), static_cast<std::uint32_t>(limit));

  const float tolerant_radius = radius + kRadiusTolerance;
  copy_from_origins(strip, reach, mask, [&](std::uint32_t pixel) {
    const Position at = grid.position(pixel);
    const Position origin = grid.position(reach.origin[pixel]);
    // To the nearer edge of the pixel.
    const float ax = std::max(static_cast<float>(std::abs(at.x - origin.x)) - 0.5f, 0.0f);
    const float ay = std::max(static_cast<float>(std::abs(at.y - origin.y)) - 0.5f, 0.0f);
    return std::sqrt(ax * ax + ay * ay) <= tolerant_radius;
  });
}

void give(const std::vector<std::uint8_t>& mask, std::vector<std::uint8_t>* out) {
  if (out) *out = mask;
}

}  // namespace

float choke_radius_runtime(std::uint32_t dpi, float amount_px_at_300dpi) {
  if (!(amount_px_at_300dpi > 0.0f) || dpi == 0) return 0.0f;
  return static_cast<float>(dpi) / WhiteChoke::kReferenceDpi * amount_px_at_300dpi;
}

std::uint32_t choke_radius_px(float radius) {
  constexpr float kRoundingSlack = 0.0001f;
  constexpr float kTooLarge = 4294967296.0f;
  if (!(radius > 0.0f)) return 0;
  const float pixels = std::max(std::ceil(radius - kRoundingSlack), 1.0f);
  return pixels < kTooLarge ? static_cast<std::uint32_t>(pixels) : std::numeric_limits<std::uint32_t>::max();
}

const char* choke_strategy_name(WhiteChokeStrategy strategy) {
  switch (strategy) {
    case WhiteChokeStrategy::legacy_same_grid_distance_mask:
      return "legacy_same_grid_distance_mask";
    case WhiteChokeStrategy::production:
      return "production";
    case WhiteChokeStrategy::baseline:
      break;
  }
  return "baseline";
}

std::string normalise_strategy_token(std::string_view text) {
  return normalize_token(text);
}

WhiteChokeStrategy parse_choke_strategy(std::string_view text, WhiteChokeStrategy fallback) {
  const std::string token = normalise_strategy_token(text);
  const auto rule = std::find_if(std::begin(kTokenRules), std::end(kTokenRules),
                                 [&](const TokenRule& row) { return row.token == token; });
  return rule == std::end(kTokenRules) ? fallback : rule->strategy;
}

WhiteChokeStrategy choke_strategy_from_environment(bool env_enabled) {
  constexpr auto kDefault = WhiteChokeStrategy::production;
  if (!env_enabled) return kDefault;
  return parse_choke_strategy(platform::environment("NVO_WHITE_CHOKE_STRATEGY").value_or(""), kDefault);
}

std::vector<std::uint8_t> build_ink_mask(const StripBuffer& strip, std::uint8_t threshold) {
  std::vector<std::uint8_t> mask(strip.pixels());
  const Barriers barriers(strip);
  const auto& planes = strip.planes;
  for (std::size_t i = 0; i < mask.size(); ++i) {
    const std::uint8_t ink = std::max({planes[0][i], planes[1][i], planes[2][i], planes[3][i]});
    if (ink > threshold && !barriers[i]) mask[i] = 255;
  }
  return mask;
}

void apply_source_grid_choke(StripBuffer& strip, std::uint32_t dpi, float amount_px_at_300dpi,
                             WhiteChokeStrategy strategy, std::vector<std::uint8_t>* mask_before,
                             std::vector<std::uint8_t>* mask_after) {
  if (strategy == WhiteChokeStrategy::production) {
    if (!mask_before && !mask_after) return;
    const auto mask = build_ink_mask(strip, kInkThreshold);
    give(mask, mask_before);
    give(mask, mask_after);
    return;
  }
  // Pixels are told apart by 32-bit indices.
  if (strip.pixels() == 0 || strip.pixels() > kMaxU32) return;
  auto mask = build_ink_mask(strip, kInkThreshold);
  give(mask, mask_before);
  if (const float radius = choke_radius_runtime(dpi, amount_px_at_300dpi); radius > 0.0f) {
    if (strategy == WhiteChokeStrategy::legacy_same_grid_distance_mask) {
      spread_by_distance(strip, radius, mask);
    } else {
      spread_by_steps(strip, radius, mask);
    }
  }
  give(mask, mask_after);
}

}  // namespace nvo
