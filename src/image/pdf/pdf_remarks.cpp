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

/// Is a pixel of the plane within `kFringe` of this one more than `weakest`?
bool has_neighbour(const std::vector<std::uint8_t>& plane, std::uint32_t width, std::uint32_t height,
                   std::size_t pixel, std::uint8_t weakest) {
  constexpr std::size_t kFringe = 3;
  const std::size_t x = pixel % width, y = pixel / width;
  const std::size_t left = x - std::min(x, kFringe), right = std::min<std::size_t>(x + kFringe, width - 1);
  const std::size_t top = y - std::min(y, kFringe), bottom = std::min<std::size_t>(y + kFringe, height - 1);
  for (std::size_t row = top; row <= bottom; ++row) {
    const auto* first = plane.data() + row * width;
    if (std::any_of(first + left, first + right + 1, [&](std::uint8_t value) { return value > weakest; }))
      return true;
  }
  return false;
}

struct Erased {
  std::uint64_t pixels = 0;   ///< painted, and transparent by the masks
  std::uint64_t faded = 0;    ///< painted strongly, and by the masks less than half
  std::uint64_t painted = 0;  ///< all that are painted
  bool is_art = false;        ///< some of the first two are more than the edge of a masked image
};

/// What is left of the page where the soft masks take the place of its alpha. A renderer smooths the edges of
/// an image, so that some pixels beside its mask are painted: weakly where it is enlarged, and close by where
/// it is reduced.
Erased count_erased(const PdfRenderResult& page) {
  constexpr std::uint8_t kStrongestEdge = 191;  // a quarter of the pixel at least is the mask's nothing
  constexpr std::uint8_t kHalf = 127;           // interpolated between this and 255 an edge is no stronger
  const std::vector<std::uint8_t>& mask = page.process_alpha_coverage;
  Erased erased;
  for (std::size_t i = 0; i < mask.size(); ++i) {
    const std::uint8_t alpha = page.rgba[i * kRgbaBytes + 3];
    erased.painted += alpha > 0;
    const bool is_strong = alpha > kStrongestEdge;
    if (alpha == 0 || mask[i] > (is_strong ? kHalf : 0)) continue;
    ++(mask[i] == 0 ? erased.pixels : erased.faded);
    erased.is_art = erased.is_art || (is_strong && !has_neighbour(mask, page.width, page.height, i, kHalf));
  }
  return erased;
}

void tell_of_paint(const PdfRenderResult& page, std::vector<std::string>& remarks) {
  if (is_empty(page.rgba)) {
    remarks.push_back(page.has_spot_white
                          ? "the renderer found nothing to paint on the page: only its white is printed"
                          : "the renderer found nothing to paint on the page: nothing of it is printed");
    return;
  }
  const Erased erased = count_erased(page);
  if (!erased.is_art) return;
  const auto amount = [&](std::uint64_t pixels) {
    const double percent = 100.0 * static_cast<double>(pixels) / static_cast<double>(erased.painted);
    return std::to_string(pixels) + " pixels, " + number_text(percent, 3) + " % of what a viewer shows";
  };
  std::string text = "the soft masks of its images stand for the transparency of the whole page";
  if (erased.pixels != 0)
    text += ", and what is painted outside of them is not printed: " + amount(erased.pixels);
  if (erased.faded != 0)
    text += ", and what is painted where they are weak prints fainter: " + amount(erased.faded);
  remarks.push_back(std::move(text));
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
