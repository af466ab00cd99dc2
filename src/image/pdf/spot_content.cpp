#include "image/pdf/spot_content.h"

#include <algorithm>
#include <cmath>

namespace nvo {
namespace {

constexpr std::uint64_t kWorkOfAnyPage = 3'000'000'000;
// Turned images and their masks, which cover the page with the corners of their boxes overlapping. The
// largest pages that are rendered, of 268 million pixels, so get 13 seconds' worth.
constexpr std::uint64_t kWorkOfOnePixel = 36;
constexpr std::uint64_t kMostPixels = 268'435'456;

}  // namespace

bool is_paintable(DevicePoint point) {
  return std::abs(point.x) <= kMaxCoordinate && std::abs(point.y) <= kMaxCoordinate;
}

DevicePoint PageRaster::to_device(const PdfMatrix& ctm, double x, double y) const {
  const double page_x = x * ctm.a + y * ctm.c + ctm.e;
  const double page_y = x * ctm.b + y * ctm.d + ctm.f;
  return {(page_x - box.x0) * width / (box.x1 - box.x0), (box.y1 - page_y) * height / (box.y1 - box.y0)};
}

WorkBudget WorkBudget::for_page(std::uint64_t pixels) {
  return WorkBudget(kWorkOfAnyPage + kWorkOfOnePixel * std::min(pixels, kMostPixels));
}

bool WorkBudget::spend(std::uint64_t units) {
  const bool enough = units <= left_;
  left_ = enough ? left_ - units : 0;
  return enough;
}

std::vector<double> SpotOperands::numbers() const {
  std::vector<double> numbers;
  for (const PdfToken& token : tokens_)
    if (token.type == PdfTokenType::number) numbers.push_back(token.number);
  return numbers;
}

std::string_view SpotOperands::last_name() const {
  for (std::size_t i = tokens_.size(); i-- > 0;)
    if (tokens_[i].type == PdfTokenType::name) return tokens_[i].text;
  return {};
}

void SpotContent::save_state() {
  if (saved_.size() == kMaxSavedStates)
    abort();
  else
    saved_.push_back(state_);
}

void SpotContent::restore_state() {
  if (saved_.empty()) return;
  state_ = saved_.back();
  saved_.pop_back();
}

void SpotContent::concatenate_matrix(const SpotOperands& operands) {
  constexpr std::size_t kMatrixNumbers = 6;
  if (operands.size() < kMatrixNumbers) return;
  const auto [a, b, c, d, e, f] = operands.last_numbers<kMatrixNumbers>();
  const PdfMatrix m = state_.ctm;
  state_.ctm = {a * m.a + b * m.c, a * m.b + b * m.d,       c * m.a + d * m.c,
                c * m.b + d * m.d, e * m.a + f * m.c + m.e, e * m.b + f * m.d + m.f};
}

}  // namespace nvo
