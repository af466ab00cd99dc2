#include "screen/choke/outline_search.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <limits>
#include <utility>

#include "screen/kernels/instruction_set.h"

namespace nvo {
namespace {

using Word = std::uint64_t;

constexpr std::size_t kNoRow = std::numeric_limits<std::size_t>::max() - 1;
constexpr std::size_t kMargin = 64;  ///< far columns on either side of the row keys
static_assert(kMargin > RingMetric::kMostColumns);

std::uint32_t size_of(std::int32_t displacement) {
  return static_cast<std::uint32_t>(std::abs(displacement));
}

}  // namespace

OutlineRows::OutlineRows(const ChokeContext& context, std::size_t margin, std::size_t kept)
    : ComputedRows(static_cast<std::uint32_t>((context.colour_core.words_per_row + 2 * margin) * 64),
                   context.height, kept),
      context_(context),
      margin_(margin),
      gaps_(words()) {}

bool OutlineRows::compute(std::size_t y, Word* row) {
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
  const Word* before = gaps - 1;
  for (std::size_t i = 0; i < count; ++i) {
    const Word left = gaps[i] << 1 | before[i] >> 63, right = gaps[i] >> 1 | gaps[i + 1] << 63;
    out[i] = core[i] & (gaps[i] | left | right);
  }
  if (!context_.exempt.empty())
    for (std::size_t i = 0; i < count; ++i) out[i] &= ~context_.exempt.row(y)[i];
  return any_set(out, count);
}

std::optional<RingMetric> ring_metric(std::span<const ChokeOffset> offsets) {
  RingMetric metric;
  std::uint8_t nearness = 255;
  const ChokeOffset* before = nullptr;
  for (auto at = offsets.begin(); at != offsets.end(); ++at) {
    if (at->dx > 0) continue;  // lies as far as the one to the left
    const std::uint32_t columns = size_of(at->dx), key = 2 * size_of(at->dy) + (at->dy > 0 ? 1 : 0);
    if (columns > RingMetric::kMostColumns || key >= RingMetric::kKeys) return std::nullopt;
    const bool shares =
        before != nullptr && before->group == at->group && before->dx == at->dx && before->dy == -at->dy;
    if (before != nullptr && !shares && --nearness == 0) return std::nullopt;
    before = &*at;
    metric.columns = std::max(metric.columns, columns);
    metric.nearness[columns][key] = nearness;
    metric.sixteens[columns] = std::max(metric.sixteens[columns], static_cast<std::uint8_t>(key / 16 + 1));
  }
  return metric;
}

RowSearch::RowSearch(OutlineRows& outline, const ColourRingRows& ring, const RingMetric& metric)
    : outline_(outline),
      ring_(ring),
      metric_(metric),
      kernels_(active_instruction_set().ring),
      reach_(ring.reach),
      words_(outline.words() - 2 * outline.margin()),
      clear_row_(words_),
      above_row_(kNoRow),
      keys_(words_ * 64 + 2 * kMargin, std::uint8_t{255}),
      live_(words_),
      column_(words_ * 64),
      key_(words_ * 64),
      code_row_held_(words_ * 64) {
  for (auto [distances, rows] : {std::pair(&above_, std::size_t{1}), std::pair(&below_, kRowsAtOnce + 1)}) {
    distances->rows.resize(rows * words_ * 64);
    distances->life.resize(rows * words_);
  }
}

const Word* RowSearch::outline(std::size_t y) {
  const Word* row = outline_.row(y);
  return row == nullptr ? clear_row_.data() : row + outline_.margin();
}

bool RowSearch::find(std::size_t y, Word* wanted, const Word* held, Word* found, Word* changed,
                     std::uint32_t*& places_end) {
  count_to(y);
  if (!any_near(wanted)) return false;
  number_code_rows(y);
  kernels_.find_nearest(metric_,
                        {wanted, held, keys_.data() + kMargin, code_row_of_key_.data(), found, changed,
                         column_.data(), key_.data(), code_row_held_.data()},
                        words_);
  append_places(changed, places_end);
  return any_set(found, words_);
}

/// Leaves those dots wanted that have outline in their word or the next; no reach is wider.
bool RowSearch::any_near(Word* wanted) const {
  Word any = 0;
  for (std::size_t i = 0; i < words_; ++i) {
    const bool is_near =
        live_[i] != 0 || (i > 0 && live_[i - 1] != 0) || (i + 1 < words_ && live_[i + 1] != 0);
    if (!is_near) wanted[i] = 0;
    any |= wanted[i];
  }
  return any != 0;
}

void RowSearch::append_places(const Word* changed, std::uint32_t*& places_end) const {
  std::uint32_t* next = places_end;
  for (std::size_t i = 0; i < words_; ++i) {
    for (Word left = changed[i]; left != 0; left &= left - 1) {
      const std::size_t x = i * 64 + static_cast<std::size_t>(std::countr_zero(left));
      *next++ =
          place_of_key_[key_[x]] + static_cast<std::uint32_t>(static_cast<std::int64_t>(x) + column_[x]);
    }
  }
  places_end = next;
}

/// Makes `keys_` those of row y.
void RowSearch::count_to(std::size_t y) {
  if (y < below_begin_ || y >= below_end_) count_below(y);
  const OutlineDistances above = above_.at(0, words_);
  std::size_t next = above_row_ + 1;
  if (above_row_ == kNoRow || y - std::min(y, reach_) > next) {
    next = y - std::min(y, reach_);
    std::ranges::fill(above_.life, std::uint8_t{0});
  }
  for (; next <= y; ++next)
    kernels_.count_rows(outline(next), above, above, static_cast<std::uint8_t>(reach_), words_);
  above_row_ = y;
  kernels_.nearest_keys(above, below_.at(y - below_begin_, words_), words_, keys_.data() + kMargin,
                        live_.data());
}

/// Counts the rows from y on from the outline below them.
void RowSearch::count_below(std::size_t y) {
  const std::size_t height = outline_.height();
  below_begin_ = y;
  below_end_ = std::min(y + kRowsAtOnce, height);
  const OutlineDistances behind = below_.at(kRowsAtOnce, words_);
  std::fill_n(behind.life, words_, std::uint8_t{0});
  OutlineDistances before = behind;
  for (std::size_t row = std::min(below_end_ + reach_, height); row-- > below_begin_;) {
    const OutlineDistances here = row < below_end_ ? below_.at(row - below_begin_, words_) : behind;
    kernels_.count_rows(outline(row), before, here, static_cast<std::uint8_t>(reach_), words_);
    before = here;
  }
}

/// Numbers of code rows are told by their lowest byte: within the reach of two neighbouring rows they are
/// less than 128 apart.
void RowSearch::number_code_rows(std::size_t y) {
  const std::size_t height = ring_.code_row.size();
  for (std::size_t key = 0; key < std::min(RingMetric::kKeys, 2 * reach_ + 2); ++key) {
    const std::size_t rows = key / 2;
    const std::size_t source = key % 2 != 0 ? std::min(y + rows, height - 1) : y - std::min(y, rows);
    code_row_of_key_[key] = static_cast<std::uint8_t>(ring_.code_row[source]);
    place_of_key_[key] = ring_.place(source);
  }
}

}  // namespace nvo
