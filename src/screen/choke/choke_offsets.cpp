#include "screen/choke/choke_offsets.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <tuple>

namespace nvo {
namespace {

constexpr double kRadiusTolerance = 1e-6;  ///< inches; takes in dots that lie on the radius but for rounding
constexpr double kEqualDistance = 1e-7;    ///< inches

/// Octile distances on a grid of oblong dots. f64, so that only truly coinciding distances fall within 1e-7.
class OctileMetric {
 public:
  OctileMetric(std::uint32_t x_dpi, std::uint32_t y_dpi)
      : x_dpi_(x_dpi),
        y_dpi_(y_dpi),
        diagonal_(std::sqrt(1.0 / (x_dpi_ * x_dpi_) + 1.0 / (y_dpi_ * y_dpi_))) {}

  double distance(std::int32_t dx, std::int32_t dy) const {
    const std::int32_t across = std::abs(dx), along = std::abs(dy), diagonal_steps = std::min(across, along);
    return (across - diagonal_steps) / x_dpi_ + diagonal_steps * diagonal_ +
           (along - diagonal_steps) / y_dpi_;
  }

 private:
  double x_dpi_, y_dpi_, diagonal_;
};

/// Numbers the groups of a list sorted by distance and drops those that begin beyond `limit`. Grouping first
/// and ordering inside the groups afterwards gives one answer even where a chain of close distances is longer
/// than the tolerance.
void group_up_to(double limit, std::vector<ChokeOffset>& offsets) {
  double nearest = 0.0;
  std::uint32_t group = 0;
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    if (offsets[i].distance - nearest > kEqualDistance) {
      nearest = offsets[i].distance;
      ++group;
      if (nearest > limit) return offsets.resize(i);
    }
    offsets[i].group = group;
  }
}

}  // namespace

std::vector<ChokeOffset> choke_offsets(std::uint32_t x_dpi, std::uint32_t y_dpi, float radius_in) {
  const OctileMetric metric(x_dpi, y_dpi);
  const double limit = static_cast<double>(radius_in) + kRadiusTolerance;
  const double listed = limit + kEqualDistance;  // with the rest of the last group
  const auto reach_x = static_cast<std::int32_t>(std::ceil(x_dpi * listed)) + 1;
  const auto reach_y = static_cast<std::int32_t>(std::ceil(y_dpi * listed)) + 1;

  std::vector<ChokeOffset> offsets;
  for (std::int32_t dy = -reach_y; dy <= reach_y; ++dy) {
    for (std::int32_t dx = -reach_x; dx <= reach_x; ++dx) {
      const double distance = metric.distance(dx, dy);
      if (distance <= listed) offsets.push_back({dx, dy, distance, 0});
    }
  }
  std::ranges::sort(offsets, {}, &ChokeOffset::distance);
  group_up_to(limit, offsets);
  std::ranges::sort(offsets, {}, [](const ChokeOffset& o) { return std::tuple(o.group, o.dy, o.dx); });
  return offsets;
}

}  // namespace nvo
