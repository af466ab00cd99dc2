#include "image/pdf/spot_vector_painter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string>
#include <utility>

#include "image/pdf/spot_path_raster.h"

namespace nvo {
namespace {

constexpr std::size_t kMaxPathPoints = 250'000;
constexpr double kLeastLineWidth = 1.0;  // in pixels
constexpr double kLeastRadius = 0.5;

double distance(DevicePoint a, DevicePoint b) {
  const double dx = b.x - a.x, dy = b.y - a.y;
  return std::sqrt(dx * dx + dy * dy);
}

MaskView ready_mask(std::vector<std::uint8_t>& mask, const PageRaster& page) {
  if (mask.empty()) mask.resize(page.pixels());
  return {mask.data(), page.width, page.height};
}

}  // namespace

SpotVectorPainter::SpotVectorPainter(const SpotColorantMap& colorants, const PageRaster& page)
    : colorants_(colorants), content_(page) {
  SpotGraphicsState& state = content_.state();
  state.fill_space = state.stroke_space = find_colorant({});
}

SpotVectorPainter::Action SpotVectorPainter::find_action(std::string_view name) {
  using Self = SpotVectorPainter;
  static constexpr std::array<std::pair<std::string_view, Action>, 20> kActions{{
      {"q", &Self::save_state},
      {"Q", &Self::restore_state},
      {"cm", &Self::concatenate_matrix},
      {"m", &Self::move_to},
      {"l", &Self::line_to},
      {"h", &Self::close_subpath},
      {"re", &Self::add_rectangle},
      {"f", &Self::fill_path},
      {"F", &Self::fill_path},
      {"f*", &Self::fill_path},
      {"S", &Self::stroke_path},
      {"s", &Self::close_and_stroke_path},
      {"n", &Self::end_path},
      {"cs", &Self::set_color_space<Side::fill>},
      {"CS", &Self::set_color_space<Side::stroke>},
      {"scn", &Self::set_color<Side::fill>},
      {"SCN", &Self::set_color<Side::stroke>},
      {"sc", &Self::set_color<Side::fill>},
      {"SC", &Self::set_color<Side::stroke>},
      {"w", &Self::set_line_width},
  }};
  for (const auto& [known, action] : kActions)
    if (known == name) return action;
  return nullptr;
}

void SpotVectorPainter::run(PdfTokenSpan tokens) {
  content_.run(tokens, find_action,
               [this](Action action, const SpotOperands& operands) { (this->*action)(operands); });
}

const SpotColorant* SpotVectorPainter::find_colorant(std::string_view name) const {
  const auto entry = colorants_.find(normalize_pdf_name(name));
  return entry == colorants_.end() ? nullptr : &entry->second;
}

template <SpotVectorPainter::Side side>
void SpotVectorPainter::set_color_space(const SpotOperands& operands) {
  SpotGraphicsState& state = content_.state();
  (side == Side::fill ? state.fill_space : state.stroke_space) = find_colorant(operands.last_name());
  (side == Side::fill ? state.fill_is_white : state.stroke_is_white) = false;
}

template <SpotVectorPainter::Side side>
void SpotVectorPainter::set_color(const SpotOperands& operands) {
  SpotGraphicsState& state = content_.state();
  const SpotColorant* space = side == Side::fill ? state.fill_space : state.stroke_space;
  bool& is_white = side == Side::fill ? state.fill_is_white : state.stroke_is_white;
  is_white = false;
  if (!space || !space->found) return;
  const std::vector<double> tints = operands.numbers();
  if (tints.empty()) return;
  const auto component = static_cast<std::size_t>(std::max(space->component_index, 0));
  is_white = tints[std::min(component, tints.size() - 1)] > 0.0;
}

void SpotVectorPainter::set_line_width(const SpotOperands& operands) {
  if (operands.size() == 0) return;
  content_.state().line_width = std::max(0.0, operands.last_numbers<1>()[0]);
}

bool SpotVectorPainter::begin_subpath(DevicePoint start, std::size_t points_to_come) {
  if (points_.size() + points_to_come > kMaxPathPoints) {
    content_.abort();
    return false;
  }
  subpath_starts_.push_back(points_.size());
  points_.push_back(start);
  subpath_start_ = start;
  has_current_point_ = true;
  return true;
}

void SpotVectorPainter::append_point(DevicePoint point) {
  if (points_.size() == kMaxPathPoints)
    content_.abort();
  else
    points_.push_back(point);
}

void SpotVectorPainter::clear_path() {
  points_.clear();
  subpath_starts_.clear();
  has_current_point_ = false;
}

void SpotVectorPainter::move_to(const SpotOperands& operands) {
  const auto [x, y] = operands.last_numbers<2>();
  begin_subpath(content_.to_device(x, y), 1);
}

void SpotVectorPainter::line_to(const SpotOperands& operands) {
  if (!has_current_point_) return move_to(operands);
  const auto [x, y] = operands.last_numbers<2>();
  append_point(content_.to_device(x, y));
}

void SpotVectorPainter::close_subpath(const SpotOperands&) {
  if (has_current_point_) append_point(subpath_start_);
}

void SpotVectorPainter::add_rectangle(const SpotOperands& operands) {
  const auto [x, y, w, h] = operands.last_numbers<4>();
  if (!begin_subpath(content_.to_device(x, y), 4)) return;
  points_.push_back(content_.to_device(x + w, y));
  points_.push_back(content_.to_device(x + w, y + h));
  points_.push_back(content_.to_device(x, y + h));
}

std::size_t SpotVectorPainter::subpath_end(std::size_t index) const {
  return index + 1 < subpath_starts_.size() ? subpath_starts_[index + 1] : points_.size();
}

void SpotVectorPainter::fill_path(const SpotOperands&) {
  if (content_.state().fill_is_white && !points_.empty()) {
    const MaskView mask = ready_mask(mask_, content_.page());
    for (std::size_t i = 0; i < subpath_starts_.size() && !aborted(); ++i) {
      const std::size_t first = subpath_starts_[i];
      const auto points = std::span(points_).subspan(first, subpath_end(i) - first);
      if (!fill_subpath(points, mask, content_.work())) content_.abort();
    }
  }
  clear_path();
}

double SpotVectorPainter::stroke_radius() const {
  const double width = content_.state().line_width;
  const DevicePoint origin = content_.to_device(0.0, 0.0);
  const double pixels = std::max({distance(origin, content_.to_device(width, 0.0)),
                                  distance(origin, content_.to_device(0.0, width)), kLeastLineWidth});
  return std::max(pixels * 0.5, kLeastRadius);
}

bool SpotVectorPainter::stroke_subpath(std::size_t index, double radius) {
  const MaskView mask = ready_mask(mask_, content_.page());
  for (std::size_t i = subpath_starts_[index]; i + 1 < subpath_end(index); ++i)
    if (!stroke_segment(points_[i], points_[i + 1], radius, mask, content_.work())) return false;
  return true;
}

void SpotVectorPainter::stroke_path(const SpotOperands&) {
  if (aborted()) return;
  if (content_.state().stroke_is_white) {
    const double radius = stroke_radius();
    for (std::size_t i = 0; i < subpath_starts_.size() && !aborted(); ++i)
      if (!stroke_subpath(i, radius)) content_.abort();
  }
  clear_path();
}

void SpotVectorPainter::close_and_stroke_path(const SpotOperands& operands) {
  close_subpath(operands);
  stroke_path(operands);
}

}  // namespace nvo
