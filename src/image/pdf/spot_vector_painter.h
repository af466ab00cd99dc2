#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "image/pdf/spot_color_space.h"
#include "image/pdf/spot_content.h"

namespace nvo {

/// Paints a page's straight-edged vector shapes that are set in white. Any tint above 0 is full white;
/// curves, clipping, text and later paint in other colours have no effect.
class SpotVectorPainter {
 public:
  /// `colorants` must outlive this.
  SpotVectorPainter(const SpotColorantMap& colorants, const PageRaster& page);

  /// One content stream; call it for each in order.
  void run(PdfTokenSpan tokens);

  /// A limit was met: the mask is of no use.
  bool aborted() const { return content_.aborted(); }
  /// 255 where white was painted, else 0; empty while nothing was.
  std::vector<std::uint8_t>& mask() { return mask_; }

 private:
  using Action = void (SpotVectorPainter::*)(const SpotOperands&);
  enum class Side : std::uint8_t { fill, stroke };

  static Action find_action(std::string_view name);

  void save_state(const SpotOperands&) { content_.save_state(); }
  void restore_state(const SpotOperands&) { content_.restore_state(); }
  void concatenate_matrix(const SpotOperands& operands) { content_.concatenate_matrix(operands); }
  void set_line_width(const SpotOperands& operands);
  void move_to(const SpotOperands& operands);
  void line_to(const SpotOperands& operands);
  void close_subpath(const SpotOperands&);
  void add_rectangle(const SpotOperands& operands);
  void fill_path(const SpotOperands&);
  void stroke_path(const SpotOperands&);
  void close_and_stroke_path(const SpotOperands& operands);
  void end_path(const SpotOperands&) { clear_path(); }
  template <Side side>
  void set_color_space(const SpotOperands& operands);
  template <Side side>
  void set_color(const SpotOperands& operands);

  const SpotColorant* find_colorant(std::string_view name) const;
  bool begin_subpath(DevicePoint start, std::size_t points_to_come);
  void append_point(DevicePoint point);
  void clear_path();
  double stroke_radius() const;
  bool stroke_subpath(std::size_t index, double radius);
  std::size_t subpath_end(std::size_t index) const;

  const SpotColorantMap& colorants_;
  SpotContent content_;
  std::vector<std::uint8_t> mask_;
  std::vector<DevicePoint> points_;
  std::vector<std::size_t> subpath_starts_;  ///< indices into `points_`
  DevicePoint subpath_start_;
  bool has_current_point_ = false;
};

}  // namespace nvo
