#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/plane_view.h"

namespace nvo {

/// Rows of the five inks C, M, Y, K, W and of a mark that tells what was written. Pointers to one row's first
/// column.
struct InkRows {
  std::array<const std::uint8_t*, 5> inks{};
};

/// Where the pixels of an item go: the part of each plane that it covers. `mark` receives `mark_value` for
/// every pixel written.
struct PixelTarget {
  std::array<MutablePlaneView, 5> inks{};
  MutablePlaneView mark;
  std::uint8_t mark_value = 0;

  /// Without its first `rows` rows.
  PixelTarget below(std::uint32_t rows) const;
};

/// Columns [begin, end) that are written in one go. With `holes` some of them, few at a time, are not to be
/// written.
struct PixelRun {
  std::uint32_t begin = 0, end = 0;
  bool holes = false;

  std::uint32_t size() const { return end - begin; }
};

/// Replaces `runs` by those of the nonzero bytes of `mask` and returns how many bytes are nonzero.
std::uint32_t find_runs(const std::uint8_t* mask, std::uint32_t count, std::vector<PixelRun>& runs);

/// Copies the columns of `run` whose `mask` byte is not 0 to row `y` of `target`; without holes the mask
/// isn't looked at.
void copy_run(const PixelRun& run, const std::uint8_t* mask, const InkRows& rows, const PixelTarget& target,
              std::uint32_t y);

/// Whether any of these columns has ink.
bool any_ink(const PixelRun& run, const std::uint8_t* mask, const InkRows& rows);

/// Takes `count` CMYK pixels apart.
void split_cmyk(const std::uint8_t* cmyk, std::size_t count, std::uint8_t* c, std::uint8_t* m,
                std::uint8_t* y, std::uint8_t* k);

/// Multiplies by alpha: (ink x alpha + 127) / 255, which leaves an opaque pixel as it is.
void premultiply(const std::uint8_t* alpha, std::size_t count, std::uint8_t* ink);

}  // namespace nvo
