#include "image/decode/png_unfilter.h"

#include <algorithm>
#include <cstring>

namespace nvo {
namespace {

constexpr std::size_t kPixelBytes = 4;

constexpr std::size_t kRows = 4;  // that are unfiltered together

enum Filter : std::uint8_t { kNone, kSub, kUp, kAverage, kPaeth, kFilters };

// Vectors of the compiler's, so that every machine has its registers used: two pixels, a sample to an
// element.
using Samples [[gnu::vector_size(16)]] = std::int16_t;
using Bytes [[gnu::vector_size(16)]] = std::uint8_t;
using Words [[gnu::vector_size(16)]] = std::uint64_t;

Samples widen(std::uint64_t two_pixels) {
  const auto bytes = reinterpret_cast<Bytes>(Words{two_pixels, 0});
  return reinterpret_cast<Samples>(
      __builtin_shufflevector(bytes, Bytes{}, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23));
}

std::uint64_t narrow(Samples samples) {
  using Half [[gnu::vector_size(8)]] = std::uint8_t;
  const Half bytes = __builtin_convertvector(samples, Half);
  std::uint64_t two_pixels = 0;
  std::memcpy(&two_pixels, &bytes, sizeof bytes);
  return two_pixels;
}

std::uint32_t load(const std::uint8_t* pixel) {
  std::uint32_t value = 0;
  std::memcpy(&value, pixel, sizeof value);
  return value;
}

void store(std::uint8_t* pixel, std::uint32_t value) {
  std::memcpy(pixel, &value, sizeof value);
}

/// A stored pixel as RGBA, red in the lowest byte. Gray stands in all three colours, and so does what its
/// filters make.
template <std::size_t samples>
std::uint32_t stored_pixel(const std::uint8_t* from) {
  if constexpr (samples == 4) return load(from);
  const std::uint32_t first = from[0];
  if constexpr (samples == 3) return first | from[1] << 8 | from[2] << 16;
  const std::uint32_t gray = first * 0x010101;
  if constexpr (samples == 2) return gray | std::uint32_t{from[1]} << 24;
  return gray;
}

/// What is added to a pixel that has no alpha; its own sample of it is 0.
template <std::size_t samples>
std::uint32_t alpha_of() {
  return samples % 2 == 0 ? 0 : 0xFF000000;
}

/// Four byte sums at once, none carrying into its neighbour.
std::uint32_t add_bytes(std::uint32_t a, std::uint32_t b) {
  constexpr std::uint32_t kHighBits = 0x80808080;
  return ((a & ~kHighBits) + (b & ~kHighBits)) ^ ((a ^ b) & kHighBits);
}

Samples pick(Samples where, Samples a, Samples b) {
  return (where & a) | (~where & b);
}

/// The one of left, above and corner that is nearest to left + above - corner, in this order where two are as
/// near. That is the middle one of them and 3 corner - left - above, so that a step waits for its left
/// neighbour as short as can be.
Samples paeth(Samples left, Samples above, Samples corner) {
  const Samples threshold = corner * 3 - above - left;
  const Samples low = left < above ? left : above, high = left < above ? above : left;
  return pick(low < threshold, pick(high > threshold, corner, low), high);
}

Samples wrap(Samples sums) {
  return sums & 0xFF;
}

template <std::size_t samples>
void unfilter_none(const std::uint8_t* from, std::size_t pixels, std::uint8_t* to) {
  if constexpr (samples == kPixelBytes) {
    std::memcpy(to, from, pixels * kPixelBytes);
  } else {
    for (std::size_t x = 0; x < pixels; ++x)
      store(to + x * kPixelBytes, stored_pixel<samples>(from + x * samples) | alpha_of<samples>());
  }
}

template <std::size_t samples>
void unfilter_sub(const std::uint8_t* from, std::size_t pixels, std::uint8_t* to) {
  std::uint32_t left = 0;
  for (std::size_t x = 0; x < pixels; ++x) {
    left = add_bytes(left, stored_pixel<samples>(from + x * samples));
    store(to + x * kPixelBytes, left | alpha_of<samples>());
  }
}

template <std::size_t samples>
void unfilter_up(const std::uint8_t* from, std::size_t pixels, const std::uint8_t* above, std::uint8_t* to) {
  if constexpr (samples == kPixelBytes) {
    for (std::size_t i = 0; i < pixels * kPixelBytes; ++i)
      to[i] = static_cast<std::uint8_t>(from[i] + above[i]);
  } else {
    for (std::size_t i = 0; i < pixels; ++i)
      store(to + i * kPixelBytes,
            add_bytes(load(above + i * kPixelBytes), stored_pixel<samples>(from + i * samples)) |
                alpha_of<samples>());
  }
}

template <std::size_t samples>
void unfilter_average(const std::uint8_t* from, std::size_t pixels, const std::uint8_t* above,
                      std::uint8_t* to) {
  Samples left{};
  for (std::size_t x = 0; x < pixels; ++x) {
    const Samples mean = (left + widen(load(above + x * kPixelBytes))) >> 1;
    left = wrap(mean + widen(stored_pixel<samples>(from + x * samples)));
    store(to + x * kPixelBytes, static_cast<std::uint32_t>(narrow(left)) | alpha_of<samples>());
  }
}

template <std::size_t samples>
void unfilter_paeth(const std::uint8_t* from, std::size_t pixels, const std::uint8_t* above,
                    std::uint8_t* to) {
  Samples left{}, corner{};
  for (std::size_t x = 0; x < pixels; ++x) {
    const Samples up = widen(load(above + x * kPixelBytes));
    left = wrap(paeth(left, up, corner) + widen(stored_pixel<samples>(from + x * samples)));
    corner = up;
    store(to + x * kPixelBytes, static_cast<std::uint32_t>(narrow(left)) | alpha_of<samples>());
  }
}

/// Four rows, one below the other, all of Paeth's filter. Each pixel waits for its left neighbour, so the
/// rows are worked on together, each a pixel behind the one above it. A half of a vector is one row's.
template <std::size_t samples>
class PaethRows {
 public:
  PaethRows(const FilteredRows& rows, std::size_t y, const std::uint8_t* above, std::uint8_t* to)
      : pixels_(rows.pixels), above_(above), to_(to) {
    for (std::size_t i = 0; i < kRows; ++i) from_[i] = rows.row(y + i) + 1;
  }

  void unfilter() {
    const std::size_t lag = kRows - 1;
    std::size_t x = 0;
    for (; x < std::min(lag, pixels_); ++x) step<true>(x);
    for (; x < pixels_; ++x) step<false>(x);
    for (; x < pixels_ + lag; ++x) step<true>(x);
  }

 private:
  /// Pixel `x` of the first row, the one before it of the second, and so on; at the ends only where there is
  /// one.
  template <bool at_ends>
  void step(std::size_t x) {
    const auto has_pixel = [&](std::size_t row) { return !at_ends || x - row < pixels_; };
    const auto stored = [&](std::size_t row) {
      return has_pixel(row) ? std::uint64_t{stored_pixel<samples>(from_[row] + (x - row) * samples)} : 0;
    };
    const auto put = [&](std::size_t row, std::uint64_t pixel) {
      if (has_pixel(row))
        store(to_ + (row * pixels_ + x - row) * kPixelBytes,
              static_cast<std::uint32_t>(pixel) | alpha_of<samples>());
    };
    const Samples above = widen(has_pixel(0) ? load(above_ + x * kPixelBytes) : 0);
    const Samples up = __builtin_shufflevector(above, left_, 0, 1, 2, 3, 8, 9, 10, 11);
    const Samples lower_up = __builtin_shufflevector(left_, lower_left_, 4, 5, 6, 7, 8, 9, 10, 11);
    left_ = wrap(paeth(left_, up, corner_) + widen(stored(0) | stored(1) << 32));
    lower_left_ = wrap(paeth(lower_left_, lower_up, lower_corner_) + widen(stored(2) | stored(3) << 32));
    corner_ = up;
    lower_corner_ = lower_up;
    const std::uint64_t done = narrow(left_), lower_done = narrow(lower_left_);
    put(0, done);
    put(1, done >> 32);
    put(2, lower_done);
    put(3, lower_done >> 32);
  }

  std::size_t pixels_;
  const std::uint8_t* above_;
  std::uint8_t* to_;
  const std::uint8_t* from_[kRows];
  Samples left_{}, corner_{}, lower_left_{}, lower_corner_{};
};

bool has_paeth_rows(const FilteredRows& rows, std::size_t y, std::size_t end) {
  if (end - y < kRows) return false;
  for (std::size_t i = 0; i < kRows; ++i)
    if (*rows.row(y + i) != kPaeth) return false;
  return true;
}

template <std::size_t samples>
std::size_t unfilter(const FilteredRows& rows, std::size_t count, std::uint8_t* above) {
  const std::size_t pixels = rows.pixels, rgba_bytes = pixels * kPixelBytes;
  for (std::size_t y = 0; y < count; ++y, above += rgba_bytes) {
    const std::uint8_t* from = rows.row(y) + 1;
    std::uint8_t* to = above + rgba_bytes;
    switch (from[-1]) {
      case kNone:
        unfilter_none<samples>(from, pixels, to);
        break;
      case kSub:
        unfilter_sub<samples>(from, pixels, to);
        break;
      case kUp:
        unfilter_up<samples>(from, pixels, above, to);
        break;
      case kAverage:
        unfilter_average<samples>(from, pixels, above, to);
        break;
      case kPaeth:
        if (has_paeth_rows(rows, y, count)) {
          PaethRows<samples>(rows, y, above, to).unfilter();
          y += kRows - 1;
          above += (kRows - 1) * rgba_bytes;
        } else {
          unfilter_paeth<samples>(from, pixels, above, to);
        }
        break;
      default:
        return y;
    }
  }
  return count;
}

}  // namespace

std::size_t unfilter_png_rows(const FilteredRows& rows, std::size_t count, std::uint8_t* rgba) {
  switch (rows.samples) {
    case 1:
      return unfilter<1>(rows, count, rgba);
    case 2:
      return unfilter<2>(rows, count, rgba);
    case 3:
      return unfilter<3>(rows, count, rgba);
    default:
      return unfilter<4>(rows, count, rgba);
  }
}

}  // namespace nvo
