#include "image/pdf/spot_image_painter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace nvo {
namespace {

constexpr double kSmallestArea = 1e-9;  // in square pixels; what is flatter has no inside
constexpr double kPixelMiddle = 0.5;
constexpr std::uint64_t kLeastTabledSide = 8;  // in pixels
constexpr std::size_t kMostGathered = 65'536;  // placements: more than any sheet has

// Units of work, see WorkBudget.
constexpr std::uint64_t kUprightPixelWork = 3;
constexpr std::uint64_t kPixelWork = 12;

/// Pixels of the raster along one axis, `end` excluded.
struct PixelSpan {
  std::uint32_t first = 0, end = 0;
  std::uint64_t size() const { return end > first ? end - first : 0; }
};

PixelSpan touched_pixels(const std::array<double, 4>& corners, std::uint32_t size) {
  const auto [least, greatest] = std::minmax_element(corners.begin(), corners.end());
  const auto pixel = [&](double v) {
    return static_cast<std::uint32_t>(std::clamp(v, 0.0, double{1} * size));
  };
  return {pixel(std::floor(*least)), pixel(std::ceil(*greatest))};
}

/// An image's unit square on the raster: the map from pixel centres back to it.
struct PlacedImage {
  DevicePoint origin, right, up;  ///< corner (0, 0) and the two edges that leave it
  double determinant = 0.0;
  PixelSpan columns, rows;

  double u(DevicePoint off) const { return (off.x * up.y - off.y * up.x) / determinant; }
  double v(DevicePoint off) const { return (off.y * right.x - off.x * right.y) / determinant; }
  DevicePoint offset(std::uint32_t x, std::uint32_t y) const {
    return {x + kPixelMiddle - origin.x, y + kPixelMiddle - origin.y};
  }
  /// u depends on the column alone and v on the row alone, and there are enough pixels for a table of columns
  /// to be worth its time and memory.
  bool has_column_table() const {
    return up.x == 0.0 && right.y == 0.0 && std::min(columns.size(), rows.size()) >= kLeastTabledSide;
  }
};

std::optional<PlacedImage> place_image(const PdfMatrix& ctm, const PageRaster& page) {
  const DevicePoint p00 = page.to_device(ctm, 0.0, 0.0), p10 = page.to_device(ctm, 1.0, 0.0);
  const DevicePoint p01 = page.to_device(ctm, 0.0, 1.0), p11 = page.to_device(ctm, 1.0, 1.0);
  for (const DevicePoint corner : {p00, p10, p01, p11})
    if (!is_paintable(corner)) return std::nullopt;

  PlacedImage placed;
  placed.origin = p00;
  placed.right = {p10.x - p00.x, p10.y - p00.y};
  placed.up = {p01.x - p00.x, p01.y - p00.y};
  placed.determinant = placed.up.y * placed.right.x - placed.up.x * placed.right.y;
  if (std::abs(placed.determinant) < kSmallestArea) return std::nullopt;
  placed.columns = touched_pixels({p00.x, p10.x, p01.x, p11.x}, page.width);
  placed.rows = touched_pixels({p00.y, p10.y, p01.y, p11.y}, page.height);
  return placed;
}

bool is_inside(double t) {
  return t >= 0.0 && t < 1.0;
}

std::uint32_t sample_index(double t, std::uint32_t size) {
  return std::min(static_cast<std::uint32_t>(std::floor(t * size)), size - 1);
}

void raise(std::uint8_t& value, std::uint8_t sample) {
  value = std::max(value, sample);
}

/// A pixel's column and the image's column that it takes.
struct ColumnSample {
  std::uint32_t pixel = 0, sample = 0;
};

std::vector<ColumnSample> column_samples(const PlacedImage& placed, std::uint32_t width) {
  std::vector<ColumnSample> samples;
  samples.reserve(placed.columns.size());
  for (std::uint32_t x = placed.columns.first; x < placed.columns.end; ++x) {
    const double u = placed.u(placed.offset(x, placed.rows.first));
    if (is_inside(u)) samples.push_back({x, sample_index(u, width)});
  }
  return samples;
}

void paint_upright(const CoveragePlane& plane, const PlacedImage& placed, std::uint32_t width,
                   std::uint8_t* target) {
  const std::vector<ColumnSample> columns = column_samples(placed, plane.width);
  for (std::uint32_t y = placed.rows.first; y < placed.rows.end; ++y) {
    const double v = placed.v(placed.offset(placed.columns.first, y));
    if (!is_inside(v)) continue;
    const std::uint32_t row = sample_index(1.0 - v, plane.height);
    std::uint8_t* pixels = target + std::uint64_t{y} * width;
    for (const ColumnSample column : columns) raise(pixels[column.pixel], plane.at(column.sample, row));
  }
}

void paint_any(const CoveragePlane& plane, const PlacedImage& placed, std::uint32_t width,
               std::uint8_t* target) {
  for (std::uint32_t y = placed.rows.first; y < placed.rows.end; ++y) {
    std::uint8_t* pixels = target + std::uint64_t{y} * width;
    for (std::uint32_t x = placed.columns.first; x < placed.columns.end; ++x) {
      const DevicePoint off = placed.offset(x, y);
      const double u = placed.u(off), v = placed.v(off);
      if (is_inside(u) && is_inside(v))
        raise(pixels[x], plane.at(sample_index(u, plane.width), sample_index(1.0 - v, plane.height)));
    }
  }
}

bool is_image(const PdfObject& object) {
  if (object.text.find("/Subtype") == std::string_view::npos) return false;
  const PdfTokens tokens = tokenize_pdf(object.text);
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i)
    if (is_pdf_name(tokens[i], "/Subtype") && is_pdf_name(tokens[i + 1], "/Image")) return true;
  return false;
}

}  // namespace

SpotImageMap find_spot_images(PdfTokenSpan resources, const PdfObjectTable& table) {
  SpotImageMap images;
  std::map<std::int32_t, bool> known;  // any number of names may share one object
  const PdfTokenSpan objects = find_dictionary(resources, "/XObject").value_or(PdfTokenSpan());
  for (std::size_t i = 0; i + 1 < objects.size(); ++i) {
    const auto number = objects[i].type == PdfTokenType::name ? reference_at(objects, i + 1) : std::nullopt;
    const PdfObject* object = find_object(table, number);
    if (!object) continue;
    const auto [entry, is_new] = known.try_emplace(*number);
    if (is_new) entry->second = is_image(*object);
    if (entry->second) images[normalize_pdf_name(objects[i].text)] = *number;
  }
  return images;
}

bool paint_plane(const CoveragePlane& plane, const PdfMatrix& ctm, const PageRaster& page,
                 std::vector<std::uint8_t>& target, WorkBudget& work) {
  if (plane.empty()) return true;
  const auto placed = place_image(ctm, page);
  if (!placed) return true;
  const bool upright = placed->has_column_table();
  const std::uint64_t pixels = placed->columns.size() * placed->rows.size();
  if (pixels == 0) return true;
  if (!work.spend(pixels * (upright ? kUprightPixelWork : kPixelWork))) return false;
  if (target.empty()) target.resize(page.pixels());
  (upright ? paint_upright : paint_any)(plane, *placed, page.width, target.data());
  return true;
}

SpotImagePainter::Action SpotImagePainter::find_action(std::string_view name) {
  if (name == "q") return &SpotImagePainter::save_state;
  if (name == "Q") return &SpotImagePainter::restore_state;
  if (name == "cm") return &SpotImagePainter::concatenate_matrix;
  if (name == "Do") return &SpotImagePainter::place_object;
  return nullptr;
}

void SpotImagePainter::run(PdfTokenSpan tokens) {
  content_.run(tokens, find_action,
               [this](Action action, const SpotOperands& operands) { (this->*action)(operands); });
}

void SpotImagePainter::place_object(const SpotOperands& operands) {
  const auto image = images_.find(normalize_pdf_name(operands.last_name()));
  if (image == images_.end()) return;
  gathered_.push_back({image->second, content_.state().ctm});
  if (gathered_.size() == kMostGathered) finish();
}

void SpotImagePainter::finish() {
  if (!aborted() && !paint_gathered()) content_.abort();
  gathered_.clear();
}

/// False once the work has run out.
bool SpotImagePainter::paint_gathered() {
  std::ranges::stable_sort(gathered_, {}, &Placement::image);
  WorkBudget& work = content_.work();
  std::optional<SpotImage> planes;
  for (std::size_t i = 0; i < gathered_.size(); ++i) {
    const Placement& placement = gathered_[i];
    if (i == 0 || gathered_[i - 1].image != placement.image) {
      planes.reset();  // before the next one, so that no two are held
      planes = reader_.read(placement.image, work);
    }
    if (!planes || !paint_plane(planes->white, placement.ctm, content_.page(), white_plane_, work) ||
        !paint_plane(planes->alpha, placement.ctm, content_.page(), alpha_plane_, work))
      return false;
  }
  return true;
}

}  // namespace nvo
