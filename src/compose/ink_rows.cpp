#include "compose/ink_rows.h"

#include <cstring>

namespace nvo {
namespace {

/// Runs that lie closer together than this are cheaper to write as one with holes.
constexpr std::uint32_t kMergedGap = 8;

std::uint32_t skip_zeros(const std::uint8_t* mask, std::uint32_t from, std::uint32_t count) {
  std::uint64_t word = 0;
  for (; count - from >= sizeof word; from += sizeof word) {
    std::memcpy(&word, mask + from, sizeof word);
    if (word != 0) break;
  }
  while (from < count && mask[from] == 0) ++from;
  return from;
}

std::uint32_t skip_nonzeros(const std::uint8_t* mask, std::uint32_t from, std::uint32_t count) {
  const void* zero = std::memchr(mask + from, 0, count - from);
  return zero == nullptr ? count : static_cast<std::uint32_t>(static_cast<const std::uint8_t*>(zero) - mask);
}

void copy_where(const std::uint8_t* mask, const std::uint8_t* __restrict from, std::size_t count,
                std::uint8_t* __restrict to) {
  for (std::size_t i = 0; i < count; ++i) to[i] = mask[i] != 0 ? from[i] : to[i];
}

void fill_where(const std::uint8_t* mask, std::uint8_t value, std::size_t count,
                std::uint8_t* __restrict to) {
  for (std::size_t i = 0; i < count; ++i) to[i] = mask[i] != 0 ? value : to[i];
}

}  // namespace

PixelTarget PixelTarget::below(std::uint32_t rows) const {
  const auto rest = [rows](const MutablePlaneView& plane) {
    return plane.part(0, rows, plane.width(), plane.height() - rows);
  };
  PixelTarget target = *this;
  for (MutablePlaneView& ink : target.inks) ink = rest(ink);
  target.mark = rest(mark);
  return target;
}

std::uint32_t find_runs(const std::uint8_t* mask, std::uint32_t count, std::vector<PixelRun>& runs) {
  runs.clear();
  std::uint32_t nonzero = 0;
  for (std::uint32_t at = skip_zeros(mask, 0, count); at < count;) {
    const std::uint32_t end = skip_nonzeros(mask, at, count);
    nonzero += end - at;
    if (!runs.empty() && at - runs.back().end < kMergedGap) {
      runs.back().end = end;
      runs.back().holes = true;
    } else {
      runs.push_back({at, end, false});
    }
    at = skip_zeros(mask, end, count);
  }
  return nonzero;
}

void copy_run(const PixelRun& run, const std::uint8_t* mask, const InkRows& rows, const PixelTarget& target,
              std::uint32_t y) {
  for (std::size_t ink = 0; ink < rows.inks.size(); ++ink) {
    const std::uint8_t* from = rows.inks[ink] + run.begin;
    std::uint8_t* to = target.inks[ink].row(y) + run.begin;
    if (run.holes) {
      copy_where(mask + run.begin, from, run.size(), to);
    } else {
      std::memcpy(to, from, run.size());
    }
  }
  std::uint8_t* marks = target.mark.row(y) + run.begin;
  if (run.holes) {
    fill_where(mask + run.begin, target.mark_value, run.size(), marks);
  } else {
    std::memset(marks, target.mark_value, run.size());
  }
}

bool any_ink(const PixelRun& run, const std::uint8_t* mask, const InkRows& rows) {
  for (std::size_t ink = rows.inks.size(); ink-- > 0;) {  // white, where there is most of it, first
    const std::uint8_t* const row = rows.inks[ink];
    for (std::uint32_t x = skip_zeros(row, run.begin, run.end); x < run.end;
         x = skip_zeros(row, x + 1, run.end))
      if (!run.holes || mask[x] != 0) return true;
  }
  return false;
}

void split_cmyk(const std::uint8_t* __restrict cmyk, std::size_t count, std::uint8_t* __restrict c,
                std::uint8_t* __restrict m, std::uint8_t* __restrict y, std::uint8_t* __restrict k) {
  for (std::size_t i = 0; i < count; ++i) {
    c[i] = cmyk[4 * i];
    m[i] = cmyk[4 * i + 1];
    y[i] = cmyk[4 * i + 2];
    k[i] = cmyk[4 * i + 3];
  }
}

void premultiply(const std::uint8_t* __restrict alpha, std::size_t count, std::uint8_t* __restrict ink) {
  for (std::size_t i = 0; i < count; ++i) {
    // Exact quotients by 255 in 16 bits: the dividend stays below 65535.
    const auto product = static_cast<std::uint16_t>(ink[i] * alpha[i] + 127);
    const auto rounded = static_cast<std::uint16_t>(product + 1 + (product >> 8));
    ink[i] = static_cast<std::uint8_t>(rounded >> 8);
  }
}

}  // namespace nvo
