#include "image/pdf/spot_path_raster.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

namespace nvo {
namespace {

// Units of work, see WorkBudget.
constexpr std::uint64_t kEdgeWork = 100;
constexpr std::uint64_t kCrossingWork = 16;
constexpr std::uint64_t kComparisonWork = 6;
constexpr std::uint64_t kSegmentRowWork = 64;
constexpr std::uint64_t kDistanceWork = 8;
constexpr std::uint64_t kBytesPerUnit = 8;

constexpr double kRowMiddle = 0.5;
constexpr std::uint8_t kPaint = 255;

/// Pixel numbers from first to last, none when last is below first.
struct PixelRange {
  std::int64_t first = 0, last = -1;
  bool empty() const { return last < first; }
};

/// The part of [first, last] that lies inside 0 to size - 1. The bounds are whole numbers of any size.
PixelRange clip(double first, double last, std::uint32_t size) {
  const double limit = static_cast<double>(size) - 1.0;
  if (!(first <= limit) || !(last >= 0.0)) return {};
  return {static_cast<std::int64_t>(std::max(first, 0.0)), static_cast<std::int64_t>(std::min(last, limit))};
}

bool paint_range(std::uint8_t* row, PixelRange range, WorkBudget& work) {
  if (range.empty()) return true;
  const auto count = static_cast<std::size_t>(range.last - range.first + 1);
  if (!work.spend(count / kBytesPerUnit)) return false;
  std::memset(row + range.first, kPaint, count);
  return true;
}

/// The first row whose middle is at `y` or more, at most `height`.
std::uint32_t first_row_from(double y, std::uint32_t height) {
  auto row = static_cast<std::uint32_t>(std::clamp(std::ceil(y - kRowMiddle), 0.0, double{1} * height));
  // The difference above may be rounded to a neighbour.
  while (row > 0 && row - kRowMiddle >= y) --row;
  while (row < height && row + kRowMiddle < y) ++row;
  return row;
}

/// An edge and the rows whose middles it crosses.
struct Edge {
  DevicePoint from, to;
  std::uint32_t first_row = 0, end_row = 0;

  double crossing(double y) const { return (to.x - from.x) * (y - from.y) / (to.y - from.y) + from.x; }
};

std::vector<Edge> crossing_edges(std::span<const DevicePoint> points, std::uint32_t height) {
  std::vector<Edge> edges;
  for (std::size_t i = 0; i < points.size(); ++i) {
    const DevicePoint from = points[i], to = points[i + 1 == points.size() ? 0 : i + 1];
    const Edge edge{from, to, first_row_from(std::min(from.y, to.y), height),
                    first_row_from(std::max(from.y, to.y), height)};
    if (edge.first_row < edge.end_row) edges.push_back(edge);
  }
  std::sort(edges.begin(), edges.end(),
            [](const Edge& a, const Edge& b) { return a.first_row < b.first_row; });
  return edges;
}

/// Finding one row's crossings and sorting them.
std::uint64_t crossings_work(std::uint64_t count) {
  return count * (kCrossingWork + kComparisonWork * static_cast<std::uint64_t>(std::bit_width(count)));
}

bool paint_between(const std::vector<double>& crossings, std::uint8_t* row, std::uint32_t width,
                   WorkBudget& work) {
  for (std::size_t i = 0; i + 1 < crossings.size(); i += 2) {
    const PixelRange range = clip(std::floor(crossings[i]), std::ceil(crossings[i + 1]) - 1.0, width);
    if (!paint_range(row, range, work)) return false;
  }
  return true;
}

/// The line of one stroke.
struct Segment {
  DevicePoint from;
  double dx = 0.0, dy = 0.0, squared_length = 0.0, radius = 0.0;

  static constexpr double kPointSquaredLength = 1e-9;  // what is shorter counts as a point
  bool is_point() const { return squared_length <= kPointSquaredLength; }
};

Segment make_segment(DevicePoint from, DevicePoint to, double radius) {
  const double dx = to.x - from.x, dy = to.y - from.y;
  return {from, dx, dy, dx * dx + dy * dy, radius};
}

/// The rule of a stroke.
bool is_within(const Segment& segment, double x, double y) {
  double near_x = segment.from.x, near_y = segment.from.y;
  if (!segment.is_point()) {
    const double along =
        ((x - segment.from.x) * segment.dx + (y - segment.from.y) * segment.dy) / segment.squared_length;
    const double t = std::clamp(along, 0.0, 1.0);
    near_x += t * segment.dx;
    near_y += t * segment.dy;
  }
  const double off_x = x - near_x, off_y = y - near_y;
  return std::sqrt(off_x * off_x + off_y * off_y) <= segment.radius;
}

bool paint_tested(const Segment& segment, std::uint8_t* row, double y, PixelRange range, WorkBudget& work) {
  if (range.empty()) return true;
  if (!work.spend(static_cast<std::uint64_t>(range.last - range.first + 1) * kDistanceWork)) return false;
  for (std::int64_t x = range.first; x <= range.last; ++x)
    if (is_within(segment, static_cast<double>(x) + kRowMiddle, y)) row[x] = kPaint;
  return true;
}

struct Interval {
  double low = 1.0, high = 0.0;
  bool empty() const { return !(low <= high); }
};

Interval hull(Interval a, Interval b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  return {std::min(a.low, b.low), std::max(a.high, b.high)};
}

Interval disc_on_row(DevicePoint centre, double radius, double y) {
  const double off = y - centre.y;
  if (std::abs(off) > radius) return {};
  const double half = std::sqrt(radius * radius - off * off);
  return {centre.x - half, centre.x + half};
}

/// Narrows `interval` to where low <= slope * x + offset <= high.
void narrow(Interval& interval, double slope, double offset, double low, double high) {
  if (slope == 0.0) {
    if (offset < low || offset > high) interval = {};
    return;
  }
  double first = (low - offset) / slope, last = (high - offset) / slope;
  if (last < first) std::swap(first, last);
  interval.low = std::max(interval.low, first);
  interval.high = std::min(interval.high, last);
}

/// Where a row meets everything within `radius` of the segment: one interval, for that shape is convex. True
/// to a small fraction of a pixel.
Interval stroke_on_row(const Segment& segment, double radius, double y) {
  const Interval start = disc_on_row(segment.from, radius, y);
  if (segment.is_point()) return start;
  const DevicePoint to{segment.from.x + segment.dx, segment.from.y + segment.dy};

  // Between the ends, in coordinates from the start: 0 <= along <= length^2 and |across| <= radius * length.
  const double off = y - segment.from.y;
  const double reach = radius * std::sqrt(segment.squared_length);
  Interval body{-2.0 * kMaxCoordinate, 2.0 * kMaxCoordinate};
  narrow(body, segment.dx, off * segment.dy, 0.0, segment.squared_length);
  narrow(body, -segment.dy, off * segment.dx, -reach, reach);
  body.low += segment.from.x;
  body.high += segment.from.x;
  return hull(hull(start, disc_on_row(to, radius, y)), body);
}

/// Pixels whose centres are inside, `slack` more (or fewer, if negative) on both sides.
PixelRange pixels_in(Interval interval, double slack, std::uint32_t width) {
  if (interval.empty()) return {};
  return clip(std::ceil(interval.low - kRowMiddle) - slack, std::floor(interval.high - kRowMiddle) + slack,
              width);
}

/// Where rounding is far below this margin, only pixels in the margin need the exact rule.
constexpr double kExactMargin = 1e-6;
constexpr double kFarCoordinate = 1e7;

bool is_far(DevicePoint point) {
  return std::abs(point.x) > kFarCoordinate || std::abs(point.y) > kFarCoordinate;
}

bool stroke_row(const Segment& segment, std::uint8_t* row, double y, std::uint32_t width, WorkBudget& work) {
  if (!work.spend(kSegmentRowWork)) return false;
  const PixelRange outer = pixels_in(stroke_on_row(segment, segment.radius + kExactMargin, y), 1.0, width);
  if (outer.empty()) return true;
  const PixelRange inner = pixels_in(stroke_on_row(segment, segment.radius - kExactMargin, y), -1.0, width);
  if (inner.empty()) return paint_tested(segment, row, y, outer, work);
  return paint_tested(segment, row, y, {outer.first, inner.first - 1}, work) &&
         paint_range(row, inner, work) && paint_tested(segment, row, y, {inner.last + 1, outer.last}, work);
}

}  // namespace

bool fill_subpath(std::span<const DevicePoint> points, const MaskView& mask, WorkBudget& work) {
  constexpr std::size_t kLeastPoints = 3;
  if (points.size() < kLeastPoints || !std::all_of(points.begin(), points.end(), is_paintable)) return true;
  if (!work.spend(points.size() * kEdgeWork)) return false;
  const std::vector<Edge> edges = crossing_edges(points, mask.height);

  std::vector<const Edge*> active;
  std::vector<double> crossings;
  std::size_t next = 0;
  for (std::uint32_t row = 0; next < edges.size() || !active.empty(); ++row) {
    std::erase_if(active, [&](const Edge* edge) { return edge->end_row <= row; });
    if (active.empty()) {
      if (next == edges.size()) break;
      row = edges[next].first_row;
    }
    while (next < edges.size() && edges[next].first_row == row) active.push_back(&edges[next++]);
    if (!work.spend(crossings_work(active.size()))) return false;

    crossings.clear();
    for (const Edge* edge : active) crossings.push_back(edge->crossing(row + kRowMiddle));
    std::sort(crossings.begin(), crossings.end());
    if (!paint_between(crossings, mask.row(row), mask.width, work)) return false;
  }
  return true;
}

bool stroke_segment(DevicePoint from, DevicePoint to, double radius, const MaskView& mask, WorkBudget& work) {
  if (!is_paintable(from) || !is_paintable(to) || !(radius <= kMaxCoordinate)) return true;
  const Segment segment = make_segment(from, to, radius);
  const PixelRange columns = clip(std::floor(std::min(from.x, to.x) - radius),
                                  std::ceil(std::max(from.x, to.x) + radius), mask.width);
  const PixelRange rows = clip(std::floor(std::min(from.y, to.y) - radius),
                               std::ceil(std::max(from.y, to.y) + radius), mask.height);
  if (columns.empty()) return true;

  const bool test_all = is_far(from) || is_far(to) || radius > kFarCoordinate;
  for (std::int64_t row = rows.first; row <= rows.last; ++row) {
    const double y = static_cast<double>(row) + kRowMiddle;
    std::uint8_t* pixels = mask.row(static_cast<std::uint32_t>(row));
    const bool done = test_all ? paint_tested(segment, pixels, y, columns, work)
                               : stroke_row(segment, pixels, y, mask.width, work);
    if (!done) return false;
  }
  return true;
}

}  // namespace nvo
