#include "screen/choke/white_erosion.h"

#include <algorithm>
#include <vector>

namespace nvo {
namespace {

using Word = std::uint64_t;

/// The 64 dots of a row from column `first` on; clear outside the row.
Word dots_from(const Word* row, std::size_t words, std::int64_t first) {
  const std::int64_t word = first >> 6;
  const int shift = static_cast<int>(first & 63);
  const auto at = [&](std::int64_t i) {
    return i >= 0 && i < static_cast<std::int64_t>(words) ? row[i] : Word{0};
  };
  return shift == 0 ? at(word) : at(word) >> shift | at(word + 1) << (64 - shift);
}

/// Those of `dots`, 64 set dots of a mask at most, that lie in a run of at most `longest` set dots along an
/// axis. `mask_at(k)` gives the mask's dots k steps along the axis from them.
template <class MaskAt>
Word in_short_run(Word dots, std::uint32_t longest, std::vector<Word>& before, const MaskAt& mask_at) {
  before.assign(1, dots);  // before[k]: dots with at least k set ones in front of them
  while (before.size() <= longest && before.back() != 0)
    before.push_back(before.back() & mask_at(-static_cast<std::int64_t>(before.size())));

  Word in_long_run = 0;
  Word after = dots;  // dots with at least k set ones behind them
  for (std::uint32_t k = 0; k <= longest; ++k) {
    if (k > 0) after &= mask_at(k);
    if (after == 0) break;
    if (longest - k < before.size()) in_long_run |= after & before[longest - k];
  }
  return dots & ~in_long_run;
}

/// Finds white too thin to be eroded.
class ThinWhite {
 public:
  ThinWhite(const BitPlane& support, std::uint32_t max_width) : support_(support), max_width_(max_width) {}

  /// Those of the supported dots `dots`, in word `i` of row `y`, that lie in a feature at most `max_width`
  /// across.
  Word select(Word dots, std::size_t i, std::size_t y) {
    if (dots == 0) return 0;
    const Word* row = support_.row(y);
    const Word short_across = in_short_run(dots, max_width_, before_, [&](std::int64_t k) {
      return dots_from(row, support_.words_per_row, static_cast<std::int64_t>(i) * 64 + k);
    });
    const Word rest = dots & ~short_across;
    if (rest == 0) return short_across;
    return short_across | in_short_run(rest, max_width_, before_, [&](std::int64_t k) {
             const std::int64_t other = static_cast<std::int64_t>(y) + k;
             const bool inside = other >= 0 && other < std::int64_t{support_.height};
             return inside ? support_.row(static_cast<std::size_t>(other))[i] : Word{0};
           });
  }

 private:
  const BitPlane& support_;
  std::uint32_t max_width_;
  std::vector<Word> before_;
};

/// Rows of the plane that a decision is written to, all of them in time.
struct KeepRows {
  BitPlane& plane;
  std::size_t begin, end;
};

/// White that stays only because it is thin. Computing a row decides all of the white in it.
class ThinRows final : public ComputedRows {
 public:
  /// `solid` is what is left of the support when it is drawn in by the radius, `restored` what comes back
  /// from its wide parts when they grow by the radius again.
  ThinRows(const ChokeContext& context, BitRows& solid, BitRows& restored, std::size_t kept,
           const KeepRows& keep)
      : ComputedRows(context.width, context.height, kept),
        context_(context),
        solid_(solid),
        restored_(restored),
        keep_(keep),
        thin_white_(context.support, context.min_width_dots),
        unwanted_(words()),
        clear_(words()) {}

 protected:
  bool compute(std::size_t y, Word* thin) override {
    const Word* support = context_.support.row(y);
    Word* keep = y >= keep_.begin && y < keep_.end ? keep_.plane.row(y) : unwanted_.data();
    if (!any_set(support, words())) {
      std::fill_n(keep, words(), Word{0});
      return false;
    }
    const Word* restored = or_clear(restored_.row(y));
    const Word* solid = or_clear(solid_.row(y));
    const Word* light = context_.light.empty() ? clear_.data() : context_.light.row(y);
    const Word* exempt = context_.exempt.empty() ? clear_.data() : context_.exempt.row(y);
    for (std::size_t i = 0; i < words(); ++i) {
      const Word is_protected = support[i] & light[i];
      keep[i] = exempt[i] | is_protected | (solid[i] & restored[i]);
      thin[i] = support[i] & ~is_protected & ~restored[i];
    }
    bool any_thin = false;
    for (std::size_t i = 0; i < words(); ++i) {
      if (thin[i] == 0) continue;
      const Word narrow = thin_white_.select(thin[i], i, y);
      keep[i] |= narrow;
      thin[i] = narrow & ~exempt[i];
      any_thin |= thin[i] != 0;
    }
    return any_thin;
  }

 private:
  const Word* or_clear(const Word* row) const { return row == nullptr ? clear_.data() : row; }

  const ChokeContext& context_;
  BitRows &solid_, &restored_;
  KeepRows keep_;
  ThinWhite thin_white_;
  std::vector<Word> unwanted_, clear_;
};

}  // namespace

/// From the support to the halo of thin white.
struct WhiteErosion::Chain {
  OffsetShape square;  ///< drops what is narrower than the minimum width
  PlaneRows support;
  ErodedRows solid, narrowed;
  DilatedRows opened, restored;
  ThinRows thin;
  DilatedRows halo;

  Chain(const ChokeContext& context, std::span<const std::uint32_t> equal_row, const OffsetShape& disc,
        KeepRows keep)
      : square(OffsetShape::square(
            std::min(context.min_width_dots / 2, std::max(context.width, context.height)))),
        support(context.support, equal_row),
        solid(support, disc, disc.reach() + 2 * square.reach() + 1),
        narrowed(solid, square, 2 * square.reach() + 1),
        opened(narrowed, square, 2 * disc.reach() + 1),
        restored(opened, disc, 1),
        thin(context, solid, restored, 2 * disc.reach() + 1, keep),
        halo(thin, disc, 1) {}
};

WhiteErosion::WhiteErosion(const ChokeContext& context, std::span<const std::uint32_t> equal_row,
                           const OffsetShape& disc, std::size_t begin, std::size_t end, BitPlane& keep)
    : chain_(std::make_unique<Chain>(context, equal_row, disc, KeepRows{keep, begin, end})) {}

WhiteErosion::~WhiteErosion() = default;

const std::uint64_t* WhiteErosion::halo_row(std::size_t y) {
  return chain_->halo.row(y);
}

}  // namespace nvo
