#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/spot_color_space.h"
#include "image/pdf/spot_content.h"
#include "image/pdf/spot_image.h"

namespace nvo {

/// Object numbers of the images in a page's resources, by normalised name.
using SpotImageMap = std::map<std::string, std::int32_t, std::less<>>;
SpotImageMap find_spot_images(PdfTokenSpan resources, const PdfObjectTable& table);

/// Paints a plane into `target`, a page of the raster's size, at the unit square of `ctm`; each pixel takes
/// the sample that its centre falls on where that is greater than what it has. False when the work runs out.
bool paint_plane(const CoveragePlane& plane, const PdfMatrix& ctm, const PageRaster& page,
                 std::vector<std::uint8_t>& target, WorkBudget& work);

/// Paints the page's images in a white Separation, and the soft masks of all its images, into planes of the
/// page's size. A pixel takes the greatest sample, in whatever order they come: so images are gathered first,
/// and each is decoded once, however often and between which others it is placed, and let go again.
class SpotImagePainter {
 public:
  /// All but `page` must outlive this.
  SpotImagePainter(const SpotImageMap& images, const PdfObjectTable& table, SpotColorSpaces& spaces,
                   const PageRaster& page)
      : images_(images), reader_(table, spaces), content_(page) {}

  /// One content stream; call it for each in order.
  void run(PdfTokenSpan tokens);

  /// Paints what has been gathered; call it behind the last stream.
  void finish();

  /// A limit was met: the planes are of no use.
  bool aborted() const { return content_.aborted(); }
  bool took_stand_in() const { return reader_.took_stand_in(); }
  std::vector<std::uint8_t>& white_plane() { return white_plane_; }  ///< empty while nothing was painted
  std::vector<std::uint8_t>& alpha_plane() { return alpha_plane_; }  ///< likewise

 private:
  using Action = void (SpotImagePainter::*)(const SpotOperands&);
  static Action find_action(std::string_view name);

  void save_state(const SpotOperands&) { content_.save_state(); }
  void restore_state(const SpotOperands&) { content_.restore_state(); }
  void concatenate_matrix(const SpotOperands& operands) { content_.concatenate_matrix(operands); }
  void place_object(const SpotOperands& operands);
  bool paint_gathered();

  struct Placement {
    std::int32_t image = 0;
    PdfMatrix ctm;
  };

  const SpotImageMap& images_;
  SpotImageReader reader_;
  SpotContent content_;
  std::vector<Placement> gathered_;
  std::vector<std::uint8_t> white_plane_, alpha_plane_;
};

}  // namespace nvo
