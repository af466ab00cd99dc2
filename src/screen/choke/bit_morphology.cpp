#include "screen/choke/bit_morphology.h"

#include <algorithm>

#include "screen/kernels/instruction_set.h"

namespace nvo {
bool any_set(const std::uint64_t* words, std::size_t count) {
  return std::any_of(words, words + count, [](std::uint64_t word) { return word != 0; });
}

const std::uint64_t* PlaneRows::row(std::size_t y) {
  const std::uint64_t* words = plane_.row(equal_row_[y]);
  return any_set(words, plane_.words_per_row) ? words : nullptr;
}

const std::uint64_t* ComputedRows::row(std::size_t y) {
  const std::size_t slot = y & (held_.size() - 1);
  std::uint64_t* out = rows_.data() + slot * words();
  if (held_[slot] != y) {
    any_[slot] = compute(y, out);
    held_[slot] = y;
  }
  return any_[slot] ? out : nullptr;
}

ShapedRows::ShapedRows(BitRows& source, const OffsetShape& shape, std::size_t kept)
    : ComputedRows(source.width(), source.height(), kept),
      kernels_(active_instruction_set().bit_rows),
      source_(source),
      shape_(shape),
      now_(source.words() + 2),
      next_(source.words() + 2) {}

bool ShapedRows::gather(std::size_t y, bool all_needed) {
  entries_.clear();
  const std::uint64_t *last_above = nullptr, *last_below = nullptr;
  const auto add = [&](bool inside, std::size_t at, std::size_t dy, const std::uint64_t*& last) {
    const std::uint64_t* row = inside ? source_.row(at) : nullptr;
    if (row == nullptr) return !all_needed;
    // A row that repeats is covered by its nearer, wider place.
    if (row != last) entries_.push_back({shape_.half_width[dy], row});
    last = row;
    return true;
  };
  if (!add(true, y, 0, last_above)) return false;
  last_below = last_above;
  for (std::size_t dy = 1; dy < shape_.half_width.size(); ++dy) {
    if (!add(y >= dy, y - dy, dy, last_above)) return false;
    if (!add(y + dy < height(), y + dy, dy, last_below)) return false;
  }
  return !entries_.empty();
}

/// Rows join the result when only the columns that they are to be combined over are still to come, so that
/// all of them share the steps across columns.
void ShapedRows::combine(CombineRows combine_rows, CombineColumns combine_columns, std::uint32_t overlap,
                         std::uint64_t* out) {
  std::copy_n(entries_.front().row, words(), now_.data() + 1);
  for (auto begin = entries_.begin(); begin != entries_.end();) {
    const std::uint32_t width = begin->half_width;
    const auto end =
        std::find_if(begin, entries_.end(), [&](const Entry& e) { return e.half_width != width; });
    for (; begin < end; begin += std::min<std::ptrdiff_t>(4, end - begin)) {
      const auto nth = [&](std::ptrdiff_t n) { return begin[std::min(n, end - begin - 1)].row; };
      const std::uint64_t* const four[] = {nth(0), nth(1), nth(2), nth(3)};
      combine_rows(now_.data() + 1, four, words());
    }
    widen(combine_columns, width - (end == entries_.end() ? 0 : end->half_width), overlap);
  }
  std::copy_n(now_.data() + 1, words(), out);
}

void ShapedRows::widen(CombineColumns combine_columns, std::uint32_t reach, std::uint32_t overlap) {
  for (std::uint32_t done = 0; done < reach;) {
    // What covers -done..done leaves no gap when it moves by up to 2 * done + 1.
    const std::uint32_t furthest = 2 * done + 1 - std::min(overlap * done, done);
    const std::uint32_t shift = std::min({reach - done, furthest, 63u});
    combine_columns(now_.data() + 1, next_.data() + 1, static_cast<int>(shift), words());
    now_.swap(next_);
    done += shift;
  }
}

bool ErodedRows::compute(std::size_t y, std::uint64_t* out) {
  if (!gather(y, true)) return false;
  combine(kernels_.and_rows, kernels_.and_columns, 0, out);
  return any_set(out, words());
}

bool DilatedRows::compute(std::size_t y, std::uint64_t* out) {
  if (!gather(y, false)) return false;
  // A dot that a step carries out of the row is lost to the next step. With shifts of at most done + 1 every
  // column has a dot between it and the source to be reached from, so none is missed at the borders.
  combine(kernels_.or_rows, kernels_.or_columns, 1, out);
  out[words() - 1] &= ~std::uint64_t{0} >> (63 - (width() + std::uint64_t{63}) % 64);
  return true;
}

}  // namespace nvo
