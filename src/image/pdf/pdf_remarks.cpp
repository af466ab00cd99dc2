#include "image/pdf/pdf_remarks.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace nvo {
namespace {

constexpr std::size_t kRgbaBytes = 4;
constexpr double kPointsPerInch = 72.0;

/// A number as a person writes it: at most `digits` behind the point.
std::string number_text(double number, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*g", digits, number);
  return text;
}

bool is_empty(const std::vector<std::uint8_t>& rgba) {
  for (std::size_t i = 3; i < rgba.size(); i += kRgbaBytes)
    if (rgba[i] != 0) return false;
  return true;
}

/// Does this hold for every pixel within `kFringe` of one of the page?
template <class Holds>
bool holds_around(const PdfRenderResult& page, std::size_t pixel, Holds holds) {
  constexpr std::size_t kFringe = 3;
  const std::size_t x = pixel % page.width, y = pixel / page.width;
  const std::size_t right = std::min<std::size_t>(x + kFringe, page.width - 1);
  const std::size_t bottom = std::min<std::size_t>(y + kFringe, page.height - 1);
  for (std::size_t row = y - std::min(y, kFringe); row <= bottom; ++row)
    for (std::size_t column = x - std::min(x, kFringe); column <= right; ++column)
      if (!holds(row * page.width + column)) return false;
  return true;
}

/// Pixels that print otherwise than they are painted in one way.
struct Change {
  std::uint64_t pixels = 0;
  bool is_art = false;  ///< some are more than the edge of a masked image
};

/// What becomes of the page where the soft masks take the place of its alpha.
struct MaskedPage {
  std::uint64_t painted = 0;  ///< pixels that a viewer shows
  Change erased;              ///< painted, and nothing by the masks
  Change faded;               ///< painted strongly, and by the masks less than half
  Change bared;               ///< not painted, as outside of a clipping path, and there by the masks
  Change stronger;            ///< painted less than half, and strongly by the masks
};

/// A renderer smooths the edges of an image, so that some pixels beside its mask are painted: weakly where it
/// is enlarged, and close by where it is reduced. Nor has a reduced mask the same values.
MaskedPage compare_with_masks(const PdfRenderResult& page) {
  constexpr std::uint8_t kVisible = 25, kHalf = 127;
  constexpr std::uint8_t kStrong =
      191;  // midway between a half and all: no edge to less than a half has more
  const std::vector<std::uint8_t>& mask = page.process_alpha_coverage;
  const auto alpha = [&](std::size_t i) { return page.rgba[i * kRgbaBytes + 3]; };
  const auto count = [&](Change& change, std::size_t i, auto is_art) {
    ++change.pixels;
    change.is_art = change.is_art || holds_around(page, i, is_art);
  };
  const auto is_weak = [&](std::size_t i) { return mask[i] <= kHalf; };
  MaskedPage found;
  for (std::size_t i = 0; i < mask.size(); ++i) {
    const std::uint8_t shown = alpha(i);
    found.painted += shown > 0;
    if (shown == 0 && mask[i] > kVisible)
      count(found.bared, i, [&](std::size_t j) { return alpha(j) == 0; });
    else if (shown != 0 && shown <= kHalf && mask[i] > kStrong)
      count(found.stronger, i, [&](std::size_t j) { return alpha(j) <= kHalf && mask[j] > kStrong; });
    else if (shown > kStrong && mask[i] <= kHalf)
      count(mask[i] == 0 ? found.erased : found.faded, i, is_weak);
    else if (shown != 0 && mask[i] == 0)
      ++found.erased.pixels;
  }
  return found;
}

void tell_of_paint(const PdfRenderResult& page, std::vector<std::string>& remarks) {
  if (is_empty(page.rgba)) {
    remarks.push_back(page.has_spot_white
                          ? "the renderer found nothing to paint on the page: only its white is printed"
                          : "the renderer found nothing to paint on the page: nothing of it is printed");
    return;
  }
  const MaskedPage found = compare_with_masks(page);
  std::string text;
  const auto tell = [&](const Change& change, const char* what) {
    if (!change.is_art) return;
    const double percent = 100.0 * static_cast<double>(change.pixels) / static_cast<double>(found.painted);
    text += std::string(", and ") + what + ": " + std::to_string(change.pixels) + " pixels, " +
            number_text(percent < 100 ? percent : std::round(percent), percent < 100 ? 3 : 9) +
            " % of what a viewer shows";
  };
  tell(found.erased, "what is painted outside of them is not printed");
  tell(found.faded, "what is painted where they are weak prints fainter");
  tell(found.stronger, "what is painted faintly prints as strongly as they are");
  tell(found.bared, "ink prints where nothing is painted (an image may be clipped)");
  if (!text.empty())
    remarks.push_back("the soft masks of its images stand for the transparency of the whole page" + text);
}

void tell_of_guess(const PdfRenderResult& page, std::vector<std::string>& remarks) {
  if (page.has_spot_white && page.facts.white_is_guess)
    remarks.push_back(
        "its only spot colour has another name than White and is taken as white ink: white is "
        "printed "
        "where that lies and nowhere else");
}

/// Does the picture lie on the box on which white and masks are laid?
void tell_of_place(const PdfRenderResult& page, std::vector<std::string>& remarks) {
  const PdfPageFacts& facts = page.facts;
  const char* const beside =
      ", and its white or soft masks, which are read without regard to that, lie elsewhere than the art";
  if (facts.rotation != 0)
    remarks.push_back("the page is turned by " + std::to_string(facts.rotation) + " degrees" + beside);
  const auto pixels = [](double points, float dpi) { return points * double{dpi} / kPointsPerInch; };
  double width = pixels(facts.box_width, page.dpi_x), height = pixels(facts.box_height, page.dpi_y);
  if (facts.rotation % 180 != 0) std::swap(width, height);
  constexpr double kRounding = 1.0;
  if (std::abs(width - page.width) > kRounding || std::abs(height - page.height) > kRounding)
    remarks.push_back("the page is cropped: it shows " + std::to_string(page.width) + " x " +
                      std::to_string(page.height) + " pixels of a media box of " +
                      number_text(std::round(width), 9) + " x " + number_text(std::round(height), 9) +
                      beside);
}

void tell_of_pages(const PdfRenderResult& page, std::vector<std::string>& remarks) {
  const PdfPageFacts& facts = page.facts;
  if (facts.is_page_of_tree || (!facts.is_other_page && facts.page_objects == page.page_count)) return;
  remarks.push_back(
      "its white and soft masks may be those of another page: they are read from the page with the lowest "
      "object number, " +
      (facts.is_other_page ? std::string("which is not the one that the document begins with")
                           : "and of such pages there are " + std::to_string(facts.page_objects) +
                                 ", while the document has " + std::to_string(page.page_count)));
}

void tell_of_hidden_white(const PdfRenderResult& page, std::vector<std::string>& remarks) {
  const PdfPageFacts& facts = page.facts;
  // Where the plain part of the file names a white, too, its own warning is said already.
  if (page.has_spot_white || page.has_spot_candidate) return;
  if (facts.hides_candidate)
    remarks.push_back(
        "compressed lists of objects, which are not read, name a spot white: white ink is put where the "
        "picture is opaque instead");
  else if (facts.closed_lists > 0)
    remarks.push_back(std::to_string(facts.closed_lists) +
                      " compressed lists of objects can't be looked into: if they name a spot white, white "
                      "ink is put where the picture is opaque instead");
}

}  // namespace

std::vector<std::string> remarks_on_page(const PdfRenderResult& page) {
  std::vector<std::string> remarks;
  const PdfPageFacts& facts = page.facts;
  const bool is_laid_over = page.has_spot_white || !page.process_alpha_coverage.empty();
  tell_of_paint(page, remarks);
  if (facts.has_page && facts.user_unit != 1.0)
    remarks.push_back("its UserUnit is " + number_text(facts.user_unit, 6) +
                      ", which is not used: a viewer shows the page that many times larger than it prints");
  if (facts.has_page && is_laid_over) {
    tell_of_place(page, remarks);
    tell_of_pages(page, remarks);
  }
  tell_of_guess(page, remarks);
  tell_of_hidden_white(page, remarks);
  return remarks;
}

}  // namespace nvo
