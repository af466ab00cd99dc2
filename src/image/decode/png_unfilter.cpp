#include "image/decode/png_unfilter.h"

#include <cstdlib>
#include <cstring>

namespace nvo {
namespace {

constexpr std::size_t kPixelBytes = 4;

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

/// Two rows, one below the other, both of Paeth's filter. Each pixel waits for its left neighbour, so the
/// lower row is worked on along with the upper one, a pixel behind it. The element halves are one row each.
template <std::size_t samples>
void unfilter_paeth_pair(const std::uint8_t* from, const std::uint8_t* from_lower, std::size_t pixels,
                         const std::uint8_t* above, std::uint8_t* to) {
  std::uint8_t* lower = to + pixels * kPixelBytes;
  Samples left{}, corner{}, up = widen(load(above));
  const auto step = [&](std::uint64_t upper_stored, std::uint64_t lower_stored) {
    left = wrap(paeth(left, up, corner) + widen(upper_stored | lower_stored << 32));
    corner = up;
    return narrow(left);
  };
  const auto next_above = [&](std::uint32_t pixel) {
    up = __builtin_shufflevector(widen(pixel), left, 0, 1, 2, 3, 8, 9, 10, 11);
  };
  store(to, static_cast<std::uint32_t>(step(stored_pixel<samples>(from), 0)) | alpha_of<samples>());
  for (std::size_t x = 1; x < pixels; ++x) {
    next_above(load(above + x * kPixelBytes));
    const std::uint64_t done = step(stored_pixel<samples>(from + x * samples),
                                    stored_pixel<samples>(from_lower + (x - 1) * samples));
    store(to + x * kPixelBytes, static_cast<std::uint32_t>(done) | alpha_of<samples>());
    store(lower + (x - 1) * kPixelBytes, static_cast<std::uint32_t>(done >> 32) | alpha_of<samples>());
  }
  next_above(0);
  const std::uint64_t last = step(0, stored_pixel<samples>(from_lower + (pixels - 1) * samples));
  store(lower + (pixels - 1) * kPixelBytes, static_cast<std::uint32_t>(last >> 32) | alpha_of<samples>());
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
        if (y + 1 < count && *rows.row(y + 1) == kPaeth) {
          unfilter_paeth_pair<samples>(from, rows.row(y + 1) + 1, pixels, above, to);
          ++y;
          above += rgba_bytes;
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
