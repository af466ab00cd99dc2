#include "screen/choke/colour_ring.h"

#include <algorithm>
#include <array>
#include <bit>

namespace nvo {
namespace {

using Word = std::uint64_t;

/// The colour's outline: colour dots without explicit white next to a dot without colour. Rows have `margin`
/// clear words at either side.
class OutlineRows final : public ComputedRows {
 public:
  OutlineRows(const ChokeContext& context, std::size_t margin, std::size_t kept)
      : ComputedRows(static_cast<std::uint32_t>((context.colour_core.words_per_row + 2 * margin) * 64),
                     context.height, kept),
        context_(context),
        margin_(margin),
        gaps_(words()) {}

 protected:
  bool compute(std::size_t y, Word* row) override {
    const BitPlane& colour = context_.colour_core;
    const std::size_t count = colour.words_per_row;
    const Word* core = colour.row(y);
    const Word* above = y > 0 ? colour.row(y - 1) : core;
    const Word* below = y + 1 < height() ? colour.row(y + 1) : core;
    Word* gaps = gaps_.data() + margin_;
    for (std::size_t i = 0; i < count; ++i) gaps[i] = ~(above[i] & core[i] & below[i]);
    gaps[count - 1] &= colour.last_word_mask();

    std::fill_n(row, words(), 0);
    Word* out = row + margin_;
    for (std::size_t i = 0; i < count; ++i) {
      const Word left = gaps[i] << 1 | gaps[i - 1] >> 63, right = gaps[i] >> 1 | gaps[i + 1] << 63;
      out[i] = core[i] & (gaps[i] | left | right);
    }
    if (!context_.exempt.empty())
      for (std::size_t i = 0; i < count; ++i) out[i] &= ~context_.exempt.row(y)[i];
    return any_set(out, count);
  }

 private:
  const ChokeContext& context_;
  std::size_t margin_;
  std::vector<Word> gaps_;  ///< dots with one without colour right above or below, or without it themselves
};

/// Finds the outline dots whose colour ring dots take.
///
/// The rule is told from the outline's side: groups of displacements from near to far; in each group the
/// outline dots by row, then by column, each claiming what it reaches and nobody claimed before. An outline
/// dot reaches a given dot by one displacement only, so that dot goes to the outline dot with the least
/// (group, row, column). The displacements are symmetric: their own order, by (group, dy, dx), is the order
/// of the outline dots around any dot.
class OutlineSearch {
 public:
  OutlineSearch(OutlineRows& outline, std::size_t margin, std::span<const ChokeOffset> offsets,
                const OffsetShape& disc)
      : outline_(outline),
        margin_(margin),
        offsets_(offsets),
        reach_(disc.reach()),
        rows_(2 * reach_ + 1),
        clear_row_(outline.words()) {}

  void move_to_row(std::size_t y) {
    y_ = y;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      const bool inside = y + i >= reach_ && y + i < reach_ + outline_.height();
      const Word* row = inside ? outline_.row(y + i - reach_) : nullptr;
      rows_[i] = row == nullptr ? clear_row_.data() : row;
    }
  }

  /// Whether word `i` of the row may hold a dot that an outline dot reaches.
  bool any_near(std::size_t i) const {
    return std::ranges::any_of(rows_, [&](const Word* row) { return any_set(row + i, 2 * margin_ + 1); });
  }

  /// Finds the source of each dot of word `i` of the row that is set in `dots`, appends them to `ring` and
  /// returns those that have one.
  Word claim(std::size_t i, Word dots, std::vector<RingDot>& ring) const {
    std::array<const ChokeOffset*, 64> claims;
    const std::size_t first = (i + margin_) * 64;
    Word unclaimed = dots;
    for (auto offset = offsets_.begin(); unclaimed != 0 && offset != offsets_.end(); ++offset) {
      const Word* row = rows_[reach_ + static_cast<std::size_t>(std::int64_t{offset->dy})];
      Word claimed = unclaimed & displaced(row, first + static_cast<std::size_t>(std::int64_t{offset->dx}));
      unclaimed &= ~claimed;
      for (; claimed != 0; claimed &= claimed - 1) claims[std::countr_zero(claimed)] = &*offset;
    }
    const Word all_claimed = dots & ~unclaimed;
    for (Word left = all_claimed; left != 0; left &= left - 1) {
      const int bit = std::countr_zero(left);
      const auto x = static_cast<std::uint32_t>(i * 64) + static_cast<std::uint32_t>(bit);
      const ChokeOffset& to_source = *claims[bit];
      ring.push_back(
          {x, x + static_cast<std::uint32_t>(to_source.dx), static_cast<std::uint32_t>(y_ + to_source.dy)});
    }
    return all_claimed;
  }

 private:
  /// The 64 dots from column `first` of a row on, its margin included.
  static Word displaced(const Word* row, std::size_t first) {
    const Word* word = row + first / 64;
    return word[0] >> (first % 64) | word[1] << 1 << (63 - first % 64);
  }

  OutlineRows& outline_;
  std::size_t margin_;
  std::span<const ChokeOffset> offsets_;
  std::size_t reach_;
  std::vector<const Word*> rows_;  ///< from the reach above to the reach below
  std::vector<Word> clear_row_;
  std::size_t y_ = 0;
};

}  // namespace

struct ColourRing::Steps {
  std::size_t
      margin;  ///< clear words at either side of the outline's rows, so that displaced words lie inside
  OutlineRows outline;
  DilatedRows reached;
  OutlineSearch search;

  Steps(const ChokeContext& context, std::span<const ChokeOffset> offsets, const OffsetShape& disc)
      : margin(disc.half_width[0] / 64 + 1),
        outline(context, margin, 2 * disc.reach() + 1),
        reached(outline, disc, 1),
        search(outline, margin, offsets, disc) {}
};

ColourRing::ColourRing(const ChokeContext& context, std::span<const ChokeOffset> offsets,
                       const OffsetShape& disc)
    : context_(context), steps_(std::make_unique<Steps>(context, offsets, disc)) {}

ColourRing::~ColourRing() = default;

void ColourRing::grow_row(std::size_t y, const Word* halo, Word* grown, std::vector<RingDot>& ring) {
  // A halo is small, so the few words in question are looked at one by one. Without one the reach is worked
  // out for the row as a whole.
  const Word* reached = halo == nullptr ? steps_->reached.row(y) : nullptr;
  if (halo == nullptr && reached == nullptr) return;
  const Word* candidates = halo != nullptr ? halo : reached + steps_->margin;
  const BitPlane& colour = context_.colour_core;
  const Word* core = colour.row(y);
  const Word* exempt = context_.exempt.empty() ? nullptr : context_.exempt.row(y);
  OutlineSearch& search = steps_->search;
  bool row_begun = false;
  for (std::size_t i = 0; i < colour.words_per_row; ++i) {
    Word dots = candidates[i] & ~core[i];
    if (exempt != nullptr) dots &= ~exempt[i];
    if (i + 1 == colour.words_per_row) dots &= colour.last_word_mask();
    if (dots == 0) continue;
    if (!row_begun) search.move_to_row(y);
    row_begun = true;
    if (halo == nullptr || search.any_near(i)) grown[i] |= search.claim(i, dots, ring);
  }
}

}  // namespace nvo
