#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_tokens.h"
#include "image/pdf/spot_color_space.h"

namespace nvo {

/// A point of the raster in pixels, y downwards, not rounded.
struct DevicePoint {
  double x = 0.0, y = 0.0;
};

/// Coordinates beyond this, infinities and values that aren't numbers are never painted: arithmetic on
/// smaller ones stays finite.
inline constexpr double kMaxCoordinate = 1e100;
bool is_paintable(DevicePoint point);

/// PDF's matrix [a b c d e f]: x' = a x + c y + e, y' = b x + d y + f.
struct PdfMatrix {
  double a = 1.0, b = 0.0, c = 0.0, d = 1.0, e = 0.0, f = 0.0;
};

/// What `q` saves and `Q` brings back.
struct SpotGraphicsState {
  PdfMatrix ctm;
  const SpotColorant* fill_space = nullptr;  ///< null for a colour space that has no part in white
  const SpotColorant* stroke_space = nullptr;
  bool fill_is_white = false, stroke_is_white = false;
  double line_width = 1.0;
};

/// A page's box stretched over a raster, top row first. Rotation and other boxes are not looked at.
struct PageRaster {
  PdfBox box;
  std::uint32_t width = 0, height = 0;

  std::uint64_t pixels() const { return std::uint64_t{width} * height; }
  DevicePoint to_device(const PdfMatrix& ctm, double x, double y) const;
};

/// What one pass may still do, in units of about a nanosecond. Real pages come nowhere near its end; it keeps
/// a page that paints itself a million times from holding up the job.
class WorkBudget {
 public:
  explicit WorkBudget(std::uint64_t units) : left_(units) {}
  static WorkBudget for_page(std::uint64_t pixels);

  /// False once more is asked for than is left.
  bool spend(std::uint64_t units);

 private:
  std::uint64_t left_;
};

/// The tokens since the last known operator. A missing number reads as 0.
class SpotOperands {
 public:
  explicit SpotOperands(PdfTokenSpan tokens) : tokens_(tokens) {}

  std::size_t size() const { return tokens_.size(); }
  /// The last `count` numbers in the order in which they stand; other tokens are skipped.
  template <std::size_t count>
  std::array<double, count> last_numbers() const {
    std::array<double, count> numbers{};
    std::size_t left = count;
    for (std::size_t i = tokens_.size(); i-- > 0 && left > 0;)
      if (tokens_[i].type == PdfTokenType::number) numbers[--left] = tokens_[i].number;
    return numbers;
  }
  std::vector<double> numbers() const;
  /// The last name, with its slash; empty when there is none.
  std::string_view last_name() const;

 private:
  PdfTokenSpan tokens_;
};

/// Graphics state, limits and operators that both painters have. For one page and one thread.
class SpotContent {
 public:
  explicit SpotContent(const PageRaster& page) : page_(page), work_(WorkBudget::for_page(page.pixels())) {}

  const PageRaster& page() const { return page_; }
  SpotGraphicsState& state() { return state_; }
  const SpotGraphicsState& state() const { return state_; }
  WorkBudget& work() { return work_; }
  bool aborted() const { return aborted_; }
  void abort() { aborted_ = true; }

  DevicePoint to_device(double x, double y) const { return page_.to_device(state_.ctm, x, y); }

  void save_state();
  void restore_state();
  void concatenate_matrix(const SpotOperands& operands);

  /// Walks one content stream. `find` gives the action of an operator, or null for one that is not known;
  /// such words stay among the operands. The state runs on from stream to stream.
  template <class Find, class Act>
  void run(PdfTokenSpan tokens, Find find, Act act) {
    std::size_t first_operand = 0;
    for (std::size_t i = 0; i < tokens.size() && !aborted_; ++i) {
      const auto action = tokens[i].type == PdfTokenType::word ? find(tokens[i].text) : nullptr;
      if (action) {
        act(action, SpotOperands(tokens.subspan(first_operand, i - first_operand)));
        first_operand = i + 1;
      } else if (i - first_operand == kMaxOperands) {
        abort();
      }
    }
  }

 private:
  static constexpr std::size_t kMaxOperands = 4096;
  static constexpr std::size_t kMaxSavedStates = 128;

  PageRaster page_;
  WorkBudget work_;
  SpotGraphicsState state_;
  std::vector<SpotGraphicsState> saved_;
  bool aborted_ = false;
};

}  // namespace nvo
