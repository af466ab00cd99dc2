#pragma once

#include <array>
#include <cstdint>

namespace nvo::bench {

/// What an art has at a place: ink amounts as they are where the art is opaque (0 none, 255 full), and its
/// opacity.
struct Pixel {
  std::uint8_t c, m, y, k, alpha;
};

struct Rgb {
  std::uint8_t r, g, b;
};

/// The same colour on a screen, whatever the opacity.
inline Rgb on_screen(const Pixel& p) {
  const int light = 255 - p.k;
  const auto part = [light](std::uint8_t ink) {
    return static_cast<std::uint8_t>((255 - ink) * light / 255);
  };
  return {part(p.c), part(p.m), part(p.y)};
}

/// The amounts of C, M, Y, K and white that a pixel puts on film: colour fades with the opacity, which is the
/// white.
inline std::array<std::uint8_t, 5> on_film(const Pixel& p) {
  const auto fade = [&p](int ink) { return static_cast<std::uint8_t>((ink * p.alpha + 127) / 255); };
  return {fade(p.c), fade(p.m), fade(p.y), fade(p.k), p.alpha};
}

/// A picture as a function of the place: integer arithmetic without state, so that every build and every
/// thread draws the same pixels.
struct Art {
  int width, height;  ///< pixels
  Pixel (*at)(int x, int y);
};

/// A cut-out of 3000 x 3000: noise like a photograph's, discs, hard text, a soft and lobed rim, holes, hair
/// lines.
Art photo();
/// Every tenth pixel of it.
Art tenth_of_photo();
/// A gang sheet of 6600 x 18000 with 65 such cut-outs, no two alike.
Art gang_sheet();

/// Where a cut-out stands on the gang sheet.
struct Cell {
  int x, y, width, height;
};
inline constexpr int kCellColumns = 5, kCellRows = 13;
Cell cell_of_sheet(int column, int row);

/// Art of the size of the gang sheet whose opacity is all or nothing and changes everywhere, as "distressed"
/// designs have it; the dearest art for the choke.
/// One pixel in four, at random.
Art distressed_noise();
/// Squares of 1 to 4 pixels, from the top of the sheet to its bottom, at a pitch of 4 to 8, from left to
/// right.
Art distressed_dots();
/// Every other pixel.
Art distressed_checker();

}  // namespace nvo::bench
