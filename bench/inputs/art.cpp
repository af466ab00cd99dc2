#include "art.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <vector>

namespace nvo::bench {
namespace {

using u8 = std::uint8_t;
using u32 = std::uint32_t;
using i64 = std::int64_t;

constexpr int kSheetWidth = 6600, kSheetHeight = 18000;
constexpr int kCellWidth = kSheetWidth / kCellColumns, kCellHeight = kSheetHeight / kCellRows;

u32 hash(u32 x, u32 y, u32 seed) {
  u32 h = (x * 0x9E3779B1u) ^ (y * 0x85EBCA77u) ^ (seed * 0xC2B2AE3Du);
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  h *= 0x297A2D39u;
  h ^= h >> 15;
  return h;
}

int hash_below(int limit, u32 x, u32 y, u32 seed) {
  return static_cast<int>(hash(x, y, seed) % static_cast<u32>(limit));
}

/// Value noise, 0 to 255, on a lattice of 2^shift pixels; between its points a smooth step in fixed point.
int noise(int x, int y, int shift, u32 seed) {
  const u32 left = static_cast<u32>(x >> shift), top = static_cast<u32>(y >> shift);
  const auto lattice = [&](u32 right, u32 down) {
    return static_cast<int>(hash(left + right, top + down, seed) & 255);
  };
  const auto weight = [shift](int v) {
    const int f = ((v & ((1 << shift) - 1)) << 8) >> shift;
    return (f * f * (768 - 2 * f)) >> 16;
  };
  const int across = weight(x), along = weight(y);
  const int above = lattice(0, 0) * 256 + (lattice(1, 0) - lattice(0, 0)) * across;
  const int below = lattice(0, 1) * 256 + (lattice(1, 1) - lattice(0, 1)) * across;
  return (above * 256 + (below - above) * along) >> 16;
}

struct Inks {
  int c, m, y, k;
};

/// A cut-out of a given size. Its seed decides what is on it.
class Design {
 public:
  Design(int width, int height, u32 seed) : width_(width), height_(height), seed_(seed) {
    for (u32 i = 0; i < kDiscs; ++i) {
      const u32 q = hash(i, seed, 77);
      discs_[i] = {
          static_cast<int>(q % static_cast<u32>(width)),
          static_cast<int>((q >> 12) % static_cast<u32>(height)),
          width / 40 + hash_below(std::max(1, width / 10), i, seed, 78),
          {static_cast<int>(q >> 8 & 255), static_cast<int>(q >> 16 & 255), static_cast<int>(q >> 24), 0}};
    }
  }

  Pixel at(int x, int y) const {
    if (on_hair_line(x, y)) return {255, 120, 0, 20, 255};
    Inks inks = photograph(x, y);
    lay_discs(x, y, inks);
    if (on_text(x, y)) inks = {0, 0, 0, 255};
    add_grain(x, y, inks);
    const auto byte = [](int v) { return static_cast<u8>(std::clamp(v, 0, 255)); };
    return {byte(inks.c), byte(inks.m), byte(inks.y), byte(inks.k), byte(opacity(x, y))};
  }

 private:
  static constexpr u32 kDiscs = 10;
  struct Disc {
    int x, y, radius;
    Inks inks;
  };

  int noise_of(int x, int y, int shift, u32 which) const { return noise(x, y, shift, seed_ + which); }
  u32 hash_of(int x, int y, u32 which) const {
    return hash(static_cast<u32>(x), static_cast<u32>(y), seed_ + which);
  }

  /// Inside |u|^3 + |v|^3 = 1, in fixed point with 10 bits, its rim lobed and soft over about 12 pixels.
  int opacity(int x, int y) const {
    const i64 u = i64{2 * x - width_} * 1024 / width_, v = i64{2 * y - height_} * 1024 / height_;
    i64 from_centre = (std::abs(u * u * u) + std::abs(v * v * v)) >> 20;
    from_centre += (noise_of(x, y, 7, 50) - 128) * 3;
    const int ramp = std::max(1, 12 * 3 * 1024 / std::max(width_ / 2, 1));
    const int inside = static_cast<int>(std::clamp<i64>((900 - from_centre) * 255 / ramp, 0, 255));
    const bool in_frayed_block = hash_of(x >> 6, y >> 6, 60) % 29 == 0;
    return in_frayed_block && noise_of(x, y, 4, 61) <= 110 ? 0 : inside;
  }

  Inks photograph(int x, int y) const {
    const auto ink = [&](u32 which) {
      const int octaves = noise_of(x, y, 9, which) * 8 + noise_of(x, y, 7, 10 + which) * 4 +
                          noise_of(x, y, 5, 20 + which) * 2 + noise_of(x, y, 3, 30 + which);
      return std::clamp((octaves / 15 - 80) * 2, 0, 255);
    };
    const int c = ink(0), m = ink(1), yellow = ink(2);
    return {c, m, yellow, std::clamp(std::min({c, m, yellow}) - 60, 0, 255) * 3 / 4};
  }

  void lay_discs(int x, int y, Inks& inks) const {
    for (const Disc& disc : discs_) {
      const i64 dx = x - disc.x, dy = y - disc.y, r = disc.radius, distance2 = dx * dx + dy * dy;
      if (distance2 >= (r + 1) * (r + 1)) continue;
      const int cover = static_cast<int>(std::clamp<i64>((r * r - distance2) * 255 / (2 * r + 1), 0, 255));
      inks.c += (disc.inks.c - inks.c) * cover / 255;
      inks.m += (disc.inks.m - inks.m) * cover / 255;
      inks.y += (disc.inks.y - inks.y) * cover / 255;
      inks.k -= inks.k * cover / 255;
    }
  }

  /// Three lines of text, each half as large as the one above.
  bool on_text(int x, int y) const {
    // 5 x 7 pixels each: R I P D T F 3 0
    static constexpr u8 kFont[8][7] = {{30, 17, 17, 30, 20, 18, 17}, {14, 4, 4, 4, 4, 4, 14},
                                       {30, 17, 17, 30, 16, 16, 16}, {30, 17, 17, 17, 17, 17, 30},
                                       {31, 4, 4, 4, 4, 4, 4},       {31, 16, 16, 30, 16, 16, 16},
                                       {30, 1, 1, 14, 1, 1, 30},     {14, 17, 17, 17, 17, 17, 14}};
    for (int line = 0; line < 3; ++line) {
      const int scale = std::max(1, width_ / (60 << line));
      const int right = x - width_ / 6, down = y - height_ / 4 - line * height_ / 4;
      if (right < 0 || down < 0 || down >= 7 * scale || right >= width_ * 2 / 3) continue;
      const int letter = right / scale / 6, column = right / scale % 6;
      if (column <= 4 && (kFont[(letter + line) & 7][down / scale] >> (4 - column) & 1)) return true;
    }
    return false;
  }

  void add_grain(int x, int y, Inks& inks) const {
    if (inks.k == 255) return;
    const auto grain = [&](u32 which, u32 range) {
      return static_cast<int>(hash_of(x, y, which) % range) - static_cast<int>(range / 2);
    };
    const int g = grain(99, 7);
    inks.c += g;
    inks.m += grain(98, 7);
    inks.y += grain(97, 5);
    if (inks.k != 0) inks.k += g / 2;
  }

  /// Lines of 1, 2 and 3 pixels near the left and upper edge, outside the rim.
  bool on_hair_line(int x, int y) const {
    for (int line = 0; line < 3; ++line) {
      const int begin = 8 + line * 10, end = begin + 1 + line;
      if (x >= begin && x < end && y > 8 && y < height_ - 8) return true;
      if (y >= begin && y < end && x > 8 && x < width_ - 8) return true;
    }
    return false;
  }

  int width_, height_;
  u32 seed_;
  std::array<Disc, kDiscs> discs_;
};

Pixel photo_pixel(int x, int y) {
  static const Design design(3000, 3000, 1);
  return design.at(x, y);
}

Pixel tenth_pixel(int x, int y) {
  return photo_pixel(x * 10, y * 10);
}

std::vector<Design> designs_of_sheet() {
  std::vector<Design> designs;
  for (int row = 0; row < kCellRows; ++row) {
    for (int column = 0; column < kCellColumns; ++column) {
      const Cell cell = cell_of_sheet(column, row);
      designs.emplace_back(cell.width, cell.height, static_cast<u32>(1000 + row * kCellColumns + column));
    }
  }
  return designs;
}

Pixel sheet_pixel(int x, int y) {
  static const std::vector<Design> designs = designs_of_sheet();
  const int column = x / kCellWidth, row = y / kCellHeight;
  if (column >= kCellColumns || row >= kCellRows) return {};
  const Cell cell = cell_of_sheet(column, row);
  const int right = x - cell.x, down = y - cell.y;
  if (right < 0 || down < 0 || right >= cell.width || down >= cell.height) return {};
  return designs[static_cast<std::size_t>(row * kCellColumns + column)].at(right, down);
}

Pixel distressed(int x, int y, bool opaque) {
  return {55, static_cast<u8>(255 - (x >> 5 & 255)), static_cast<u8>(255 - (y >> 6 & 255)), 0,
          static_cast<u8>(opaque ? 255 : 0)};
}

}  // namespace

Cell cell_of_sheet(int column, int row) {
  const u32 x = static_cast<u32>(column), y = static_cast<u32>(row);
  const int width = 900 + hash_below(340, x, y, 5), height = 900 + hash_below(400, x, y, 6);
  return {column * kCellWidth + (kCellWidth - width) / 2, row * kCellHeight + (kCellHeight - height) / 2,
          width, height};
}

Art photo() {
  return {3000, 3000, photo_pixel};
}

Art tenth_of_photo() {
  return {300, 300, tenth_pixel};
}

Art gang_sheet() {
  return {kSheetWidth, kSheetHeight, sheet_pixel};
}

Art distressed_noise() {
  return {kSheetWidth, kSheetHeight, [](int x, int y) {
            return distressed(x, y, (hash(static_cast<u32>(x), static_cast<u32>(y), 7) & 3) == 0);
          }};
}

Art distressed_dots() {
  return {kSheetWidth, kSheetHeight, [](int x, int y) {
            const int pitch = 4 + x / (kSheetWidth / 5), side = 1 + y / (kSheetHeight / 4);
            return distressed(x, y, x % pitch < side && y % pitch < side);
          }};
}

Art distressed_checker() {
  return {kSheetWidth, kSheetHeight, [](int x, int y) { return distressed(x, y, ((x ^ y) & 1) != 0); }};
}

}  // namespace nvo::bench
