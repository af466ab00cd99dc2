#include "screen/choke/colour_ring.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <optional>

#include "screen/choke/outline_search.h"

namespace nvo {
namespace {

using Word = std::uint64_t;

/// The search for any radius: per word of 64 dots, from near to far, displacement after displacement until
/// all dots have a source. Each displacement of the list is one step for 64 dots.
class ListSearch {
 public:
  ListSearch(OutlineRows& outline, const ChokeContext& context, std::span<const ChokeOffset> offsets,
             const OffsetShape& disc)
      : outline_(outline),
        ring_(context.ring),
        offsets_(offsets),
        reach_(disc.reach()),
        rows_(2 * reach_ + 1),
        clear_row_(outline.words()),
        column_(context.colour_core.words_per_row * 64),
        code_row_held_(column_.size()) {}

  /// As `RowSearch::find`.
  bool find(std::size_t y, const Word* wanted, const Word* held, Word* found, Word* changed,
            std::uint32_t*& places_end) {
    move_to_row(y);
    bool any = false;
    for (std::size_t i = 0; i < column_.size() / 64; ++i) {
      found[i] = changed[i] = 0;
      const auto any_near = [&](const Word* row) { return any_set(row + i, 2 * outline_.margin() + 1); };
      if (wanted[i] == 0 || std::ranges::none_of(rows_, any_near)) continue;
      found[i] = claim(i, wanted[i]);
      any |= found[i] != 0;
      changed[i] = note(i, found[i], held[i], places_end);
    }
    return any;
  }

 private:
  void move_to_row(std::size_t y) {
    y_ = y;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      const bool inside = y + i >= reach_ && y + i < reach_ + outline_.height();
      const Word* row = inside ? outline_.row(y + i - reach_) : nullptr;
      rows_[i] = row == nullptr ? clear_row_.data() : row;
    }
  }

  /// Fills `claims_` for the dots of word `i` that are set in `dots`; returns those that have a source.
  Word claim(std::size_t i, Word dots) {
    const std::size_t first = (i + outline_.margin()) * 64;
    Word unclaimed = dots;
    for (auto offset = offsets_.begin(); unclaimed != 0 && offset != offsets_.end(); ++offset) {
      const Word* row = rows_[reach_ + static_cast<std::size_t>(std::int64_t{offset->dy})];
      Word claimed = unclaimed & displaced(row, first + static_cast<std::size_t>(std::int64_t{offset->dx}));
      unclaimed &= ~claimed;
      for (; claimed != 0; claimed &= claimed - 1) claims_[std::countr_zero(claimed)] = &*offset;
    }
    return dots & ~unclaimed;
  }

  /// Appends the places of those of the claimed dots that have changed, and returns these.
  Word note(std::size_t i, Word claimed, Word held, std::uint32_t*& places_end) {
    Word changed = 0;
    for (Word left = claimed; left != 0; left &= left - 1) {
      const int bit = std::countr_zero(left);
      const std::size_t x = i * 64 + static_cast<std::size_t>(bit);
      const ChokeOffset& offset = *claims_[bit];
      const std::size_t source = y_ + static_cast<std::size_t>(std::int64_t{offset.dy});
      const std::uint32_t code_row = ring_.code_row[source];
      const bool same = (held >> bit & 1u) && column_[x] == offset.dx && code_row_held_[x] == code_row;
      column_[x] = offset.dx;
      code_row_held_[x] = code_row;
      if (same) continue;
      changed |= Word{1} << bit;
      *places_end++ =
          ring_.place(source) + static_cast<std::uint32_t>(static_cast<std::int64_t>(x) + offset.dx);
    }
    return changed;
  }

  /// The 64 dots from column `first` of a row on, its margin included.
  static Word displaced(const Word* row, std::size_t first) {
    const Word* word = row + first / 64;
    return word[0] >> (first % 64) | word[1] << 1 << (63 - first % 64);
  }

  OutlineRows& outline_;
  const ColourRingRows& ring_;
  std::span<const ChokeOffset> offsets_;
  std::size_t reach_;
  std::vector<const Word*> rows_;  ///< from the reach above to the reach below
  std::vector<Word> clear_row_;
  std::array<const ChokeOffset*, 64> claims_{};
  std::vector<std::int32_t> column_;  ///< what was found last for each dot
  std::vector<std::uint32_t> code_row_held_;
  std::size_t y_ = 0;
};

}  // namespace

struct ColourRing::Steps {
  const ChokeContext& context;
  OutlineRows outline;
  std::optional<RowSearch> by_rows;  ///< one of the two
  std::optional<ListSearch> by_list;
  std::vector<Word> wanted, held, found;
  std::size_t next_row = 0;  ///< whose row above `held` tells

  Steps(const ChokeContext& choke, std::span<const ChokeOffset> offsets, const OffsetShape& disc)
      : context(choke),
        outline(choke, disc.half_width[0] / 64 + 1, RowSearch::kRowsAtOnce + 2 * disc.reach() + 1),
        wanted(choke.colour_core.words_per_row),
        held(wanted.size()),
        found(wanted.size()) {
    if (const std::optional<RingMetric> metric = ring_metric(offsets))
      by_rows.emplace(outline, choke.ring, *metric);
    else
      by_list.emplace(outline, choke, offsets, disc);
  }

  /// Whether any dot of row y, or of `halo` in it, may belong to the ring.
  bool want_row(std::size_t y, const Word* halo) {
    const BitPlane& colour = context.colour_core;
    const Word* core = colour.row(y);
    const Word* exempt = context.exempt.empty() ? nullptr : context.exempt.row(y);
    Word any = 0;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      wanted[i] = ~core[i];
      if (halo != nullptr) wanted[i] &= halo[i];
      if (exempt != nullptr) wanted[i] &= ~exempt[i];
      if (i + 1 == wanted.size()) wanted[i] &= colour.last_word_mask();
      any |= wanted[i];
    }
    return any != 0;
  }
};

ColourRing::ColourRing(const ChokeContext& context, std::span<const ChokeOffset> offsets,
                       const OffsetShape& disc)
    : steps_(std::make_unique<Steps>(context, offsets, disc)) {}

ColourRing::~ColourRing() = default;

bool ColourRing::grow_row(std::size_t y, const Word* halo, bool afresh, const Row& row) {
  Steps& steps = *steps_;
  if (!steps.want_row(y, halo)) return false;
  if (afresh || y != steps.next_row) std::ranges::fill(steps.held, Word{0});
  const auto find = [&](auto& search) {
    return search.find(y, steps.wanted.data(), steps.held.data(), steps.found.data(), row.changed,
                       row.places_end);
  };
  if (!(steps.by_rows ? find(*steps.by_rows) : find(*steps.by_list))) return false;
  for (std::size_t i = 0; i < steps.found.size(); ++i) row.grown[i] |= steps.found[i];
  steps.held.swap(steps.found);
  steps.next_row = y + 1;
  return true;
}

}  // namespace nvo
