#include "image/pdf/spot_path_raster.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "image/image_test.h"

namespace nvo::test {
namespace {

constexpr std::uint32_t kWidth = 37, kHeight = 29;
const Bytes kBlank(kWidth* kHeight);
using Points = std::vector<DevicePoint>;

/// The rule of a fill, written down row by row.
Bytes plain_fill(const Points& points) {
  Bytes plane = kBlank;
  for (std::uint32_t row = 0; row < kHeight; ++row) {
    const double s = row + 0.5;
    std::vector<double> crossings;
    for (std::size_t i = 0; i < points.size(); ++i) {
      const DevicePoint p = points[i], q = points[(i + 1) % points.size()];
      if ((p.y > s) != (q.y > s)) crossings.push_back((q.x - p.x) * (s - p.y) / (q.y - p.y) + p.x);
    }
    std::sort(crossings.begin(), crossings.end());
    for (std::size_t i = 0; i + 1 < crossings.size(); i += 2)
      for (double x = std::max(std::floor(crossings[i]), 0.0);
           x <= std::min(std::ceil(crossings[i + 1]) - 1, kWidth - 1.0); ++x)
        plane[row * kWidth + static_cast<std::uint32_t>(x)] = 255;
  }
  return plane;
}

/// The rule of a stroke, asked of every pixel.
Bytes plain_stroke(DevicePoint a, DevicePoint b, double radius) {
  Bytes plane = kBlank;
  const double dx = b.x - a.x, dy = b.y - a.y, length2 = dx * dx + dy * dy;
  for (std::uint32_t i = 0; i < plane.size(); ++i) {
    const double cx = i % kWidth + 0.5, cy = i / kWidth + 0.5;
    const double t =
        length2 <= 1e-9 ? 0.0 : std::clamp(((cx - a.x) * dx + (cy - a.y) * dy) / length2, 0.0, 1.0);
    const double ex = cx - (a.x + t * dx), ey = cy - (a.y + t * dy);
    if (std::sqrt(ex * ex + ey * ey) <= radius) plane[i] = 255;
  }
  return plane;
}

/// A plane and what is left of the work that a page may cost.
struct Canvas {
  Bytes plane = kBlank;
  WorkBudget work = WorkBudget::for_page(plane.size());

  bool fill(const Points& points) { return fill_subpath(points, {plane.data(), kWidth, kHeight}, work); }
  bool stroke(DevicePoint a, DevicePoint b, double radius) {
    return stroke_segment(a, b, radius, {plane.data(), kWidth, kHeight}, work);
  }
};

Bytes fast_fill(const Points& points) {
  Canvas canvas;
  EXPECT_TRUE(canvas.fill(points));
  return canvas.plane;
}

Bytes fast_stroke(DevicePoint a, DevicePoint b, double radius) {
  Canvas canvas;
  EXPECT_TRUE(canvas.stroke(a, b, radius));
  return canvas.plane;
}

/// Coordinates on, around and far off the raster, many of them on the lines where rounding decides.
class Coordinates {
 public:
  std::size_t below(std::size_t n) { return random_() % n; }
  double between(double low, double high) { return std::uniform_real_distribution<>(low, high)(random_); }
  double next() {
    const double half = static_cast<double>(below(90)) * 0.5 - 4.0;
    const double choices[] = {half,
                              std::nextafter(half, below(2) ? 1e9 : -1e9),
                              between(-5, 42),
                              between(-5, 42),
                              between(-1e6, 1e6),
                              between(-1e12, 1e12)};
    return choices[below(std::size(choices))];
  }
  DevicePoint point() { return {next(), next()}; }

 private:
  std::mt19937 random_{20240607};
};

TEST(SpotPathRaster, FillsAsThePlainRuleDoes) {
  Coordinates coordinates;
  for (int shape = 0; shape < 4000; ++shape) {
    Points points(3 + coordinates.below(9));
    for (DevicePoint& point : points) point = coordinates.point();
    ASSERT_EQ(fast_fill(points), plain_fill(points)) << "shape " << shape;
  }
}

TEST(SpotPathRaster, StrokesAsThePlainRuleDoes) {
  Coordinates coordinates;
  for (int shape = 0; shape < 6000; ++shape) {
    const DevicePoint a = coordinates.point(), b = coordinates.point();
    const DevicePoint ends[] = {
        b, b, {b.x, a.y}, {a.x, b.y}, {a.x + 1e-6, a.y - 1e-6}, {b.x, std::nextafter(a.y, 1e9)}};
    const double radii[] = {0.5, 1.0, 1.5, 7.0, 40.0, 1e5, coordinates.between(0.5, 6)};
    const DevicePoint end = ends[coordinates.below(std::size(ends))];
    const double radius = radii[coordinates.below(std::size(radii))];
    ASSERT_EQ(fast_stroke(a, end, radius), plain_stroke(a, end, radius)) << "shape " << shape;
  }
}

TEST(SpotPathRaster, CoordinatesThatNoPageHasPaintNothing) {
  for (const double bad : {HUGE_VAL, -HUGE_VAL, std::nan(""), 1e300, -1e200}) {
    EXPECT_EQ(fast_fill({{0, 0}, {bad, 5}, {5, bad}}), kBlank) << bad;
    EXPECT_EQ(fast_stroke({0, bad}, {5, 5}, 1), kBlank) << bad;
    EXPECT_EQ(fast_stroke({0, 0}, {5, 5}, std::abs(bad)), kBlank) << bad;
  }
}

TEST(SpotPathRaster, StopsWhenTheWorkRunsOut) {
  const auto expect_end = [](const std::function<bool(Canvas&)>& paint) {
    Canvas canvas{.work = WorkBudget(20'000)};
    int times = 0;
    while (times < 1000 && paint(canvas)) ++times;
    EXPECT_THAT(times, AllOf(::testing::Gt(0), ::testing::Lt(1000)));
  };
  const Points page = {{0, 0}, {kWidth, 0}, {kWidth, kHeight}, {0, kHeight}};
  expect_end([&](Canvas& canvas) { return canvas.fill(page); });
  // Near and far lines are drawn in different ways.
  expect_end([](Canvas& canvas) { return canvas.stroke({0, 0}, {30, 30}, 2); });
  expect_end([](Canvas& canvas) { return canvas.stroke({0, 0}, {1e20, 1e20}, 2); });
}

}  // namespace
}  // namespace nvo::test
