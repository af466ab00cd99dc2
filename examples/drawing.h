// A small drawing kit for the example images: shapes as signed distances, type through FreeType, value noise.
// Everything is plain double arithmetic without randomness, so that every run draws the same pixels.
#pragma once

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H
#include FT_STROKER_H

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <numbers>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace drawing {

struct Point {
  double x, y;
};
inline Point operator+(Point a, Point b) {
  return {a.x + b.x, a.y + b.y};
}
inline Point operator-(Point a, Point b) {
  return {a.x - b.x, a.y - b.y};
}
inline Point operator*(Point a, double s) {
  return {a.x * s, a.y * s};
}
inline double dot(Point a, Point b) {
  return a.x * b.x + a.y * b.y;
}
inline double length(Point a) {
  return std::hypot(a.x, a.y);
}
/// `radius` away from `centre`; angles in radians, 0 to the right, growing clockwise.
inline Point polar(Point centre, double radius, double angle) {
  return centre + Point{std::cos(angle), std::sin(angle)} * radius;
}

/// Five amounts from 0 to 1. On film: cyan, magenta, yellow, black, white; on an RGB canvas: red, green,
/// blue, nothing, alpha. All zero is bare film and takes away what lies below.
using Paint = std::array<double, 5>;
/// The paint at a place, for gradients and pictures.
using Fill = std::function<Paint(Point)>;
/// Signed distance from the outline in pixels, negative inside; never growing faster than 1 a pixel.
using Shape = std::function<double(Point)>;

inline Fill solid(Paint paint) {
  return [paint](Point) { return paint; };
}

inline double clamp01(double v) {
  return std::clamp(v, 0.0, 1.0);
}
inline double smooth(double v) {
  v = clamp01(v);
  return v * v * (3 - 2 * v);
}

// ---- Shapes ----

inline Shape circle(Point c, double radius) {
  return [=](Point p) { return length(p - c) - radius; };
}
inline Shape ring(Point c, double radius, double width) {
  return [=](Point p) { return std::abs(length(p - c) - radius) - width / 2; };
}
inline Shape rounded_box(Point c, Point half, double radius) {
  return [=](Point p) {
    const Point q{std::abs(p.x - c.x) - half.x + radius, std::abs(p.y - c.y) - half.y + radius};
    return length({std::max(q.x, 0.0), std::max(q.y, 0.0)}) + std::min(std::max(q.x, q.y), 0.0) - radius;
  };
}
inline double to_segment(Point p, Point a, Point b) {
  const double t = clamp01(dot(p - a, b - a) / dot(b - a, b - a));
  return length(p - a - (b - a) * t);
}
inline Shape line(Point a, Point b, double width) {
  return [=](Point p) { return to_segment(p, a, b) - width / 2; };
}
inline Shape polygon(std::vector<Point> corners) {
  return [corners = std::move(corners)](Point p) {
    double nearest = 1e9;
    bool inside = false;
    for (std::size_t i = 0, j = corners.size() - 1; i < corners.size(); j = i++) {
      const Point a = corners[i], b = corners[j];
      nearest = std::min(nearest, to_segment(p, a, b));
      if ((a.y > p.y) != (b.y > p.y) && p.x < a.x + (b.x - a.x) * (p.y - a.y) / (b.y - a.y)) inside = !inside;
    }
    return inside ? -nearest : nearest;
  };
}
inline Shape star(Point c, double outer, double inner, int points) {
  std::vector<Point> corners;
  for (int i = 0; i < 2 * points; ++i) {
    corners.push_back(polar(c, i % 2 ? inner : outer, std::numbers::pi * (double(i) / points - 0.5)));
  }
  return polygon(std::move(corners));
}
inline Shape both(Shape a, Shape b) {
  return [=](Point p) { return std::max(a(p), b(p)); };
}
inline Shape minus(Shape a, Shape b) {
  return [=](Point p) { return std::max(a(p), -b(p)); };
}

// ---- Noise ----

/// Value noise from 0 to 1 with one feature a unit.
inline double noise(double x, double y) {
  const auto lattice = [](std::int64_t ix, std::int64_t iy) {
    std::uint64_t h = std::uint64_t(ix) * 0x9E3779B97F4A7C15u ^ std::uint64_t(iy) * 0xC2B2AE3D27D4EB4Fu;
    h = (h ^ (h >> 31)) * 0xD6E8FEB86659FD93u;
    return double((h ^ (h >> 32)) & 0xFFFF) / 65535.0;
  };
  const double fx = std::floor(x), fy = std::floor(y);
  const auto ix = std::int64_t(fx), iy = std::int64_t(fy);
  const double tx = smooth(x - fx), ty = smooth(y - fy);
  return std::lerp(std::lerp(lattice(ix, iy), lattice(ix + 1, iy), tx),
                   std::lerp(lattice(ix, iy + 1), lattice(ix + 1, iy + 1), tx), ty);
}
/// Octaves of noise, each half as strong and twice as fine as the one before; 0 to 1.
inline double fractal(double x, double y, int octaves) {
  double sum = 0, weight = 0.5, total = 0;
  for (int i = 0; i < octaves; ++i, weight /= 2, x = x * 2 + 17.3, y = y * 2 + 5.9) {
    sum += weight * noise(x, y);
    total += weight;
  }
  return sum / total;
}

// ---- Canvas ----

/// Rows of pixels, top row first; every paint is laid over what is there, by its coverage.
class Canvas {
 public:
  Canvas(int width, int height) : width_(width), height_(height), pixels_(std::size_t(width) * height) {}

  int width() const { return width_; }
  int height() const { return height_; }
  const Paint& at(int x, int y) const { return pixels_[std::size_t(y) * width_ + x]; }

  void blend(int x, int y, const Paint& paint, double coverage) {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
    Paint& pixel = pixels_[std::size_t(y) * width_ + x];
    for (std::size_t i = 0; i < pixel.size(); ++i) pixel[i] += (paint[i] - pixel[i]) * coverage;
  }

  /// Fills a shape; its edge fades over `softness` pixels to both sides of the outline.
  void fill(const Shape& shape, const Fill& paint, double softness = 0.5) {
    constexpr int kBlock = 32;
    const double reach = kBlock * 0.75 + softness;
    for (int by = 0; by < height_; by += kBlock) {
      for (int bx = 0; bx < width_; bx += kBlock) {
        if (shape({bx + kBlock / 2.0, by + kBlock / 2.0}) > reach) continue;
        for (int y = by; y < by + kBlock; ++y) {
          for (int x = bx; x < bx + kBlock; ++x) {
            const Point p{x + 0.5, y + 0.5};
            const double edge = clamp01(0.5 - shape(p) / (2 * softness));
            if (edge > 0) blend(x, y, paint(p), softness > 1 ? smooth(edge) : edge);
          }
        }
      }
    }
  }
  void fill(const Shape& shape, const Paint& paint, double softness = 0.5) {
    fill(shape, solid(paint), softness);
  }

 private:
  int width_, height_;
  std::vector<Paint> pixels_;
};

// ---- Type ----

inline void check(FT_Error error, const std::string& what) {
  if (error != 0) throw std::runtime_error("FreeType: " + what);
}
inline FT_Library freetype() {
  static const FT_Library library = [] {
    FT_Library made = nullptr;
    check(FT_Init_FreeType(&made), "cannot start");
    return made;
  }();
  return library;
}

class Font {
 public:
  explicit Font(const std::string& path) {
    check(FT_New_Face(freetype(), path.c_str(), 0, &face_), "cannot open " + path);
  }
  ~Font() { FT_Done_Face(face_); }
  Font(const Font&) = delete;
  Font& operator=(const Font&) = delete;
  FT_Face face() const { return face_; }

 private:
  FT_Face face_ = nullptr;
};

/// Sizes in pixels to the em; `tracking` is added behind each letter; `outline` fattens the letters on all
/// sides.
struct Type {
  const Font& font;
  double size;
  double tracking = 0;
  double outline = 0;
};

struct Placement {
  Point at;
  double turn;  // clockwise
};
/// Where a letter stands, by its distance from the middle of the line.
using Baseline = std::function<Placement(double)>;

inline Baseline straight(Point middle) {
  return [=](double s) { return Placement{{middle.x + s, middle.y}, 0}; };
}
/// Around a circle: over its top, reading clockwise, or with a negative radius along its bottom, reading
/// upright.
inline Baseline around(Point centre, double radius) {
  return [=](double s) {
    return Placement{polar(centre, radius, s / radius - std::numbers::pi / 2), s / radius};
  };
}

inline double advance(const Type& type, char32_t letter) {
  check(FT_Load_Char(type.font.face(), letter, FT_LOAD_NO_HINTING), "cannot load a letter");
  return double(type.font.face()->glyph->linearHoriAdvance) / 65536.0 + type.tracking;
}

inline void set_letter(Canvas& canvas, const Type& type, double advance_px, const Placement& place,
                       const Fill& paint) {
  FT_Glyph glyph = nullptr;
  check(FT_Get_Glyph(type.font.face()->glyph, &glyph), "cannot copy a letter");
  const auto fixed = [](double v, double unit) { return FT_Pos(std::lround(v * unit)); };
  FT_Vector to_middle{fixed(-(advance_px - type.tracking) / 2, 64), 0};
  check(FT_Glyph_Transform(glyph, nullptr, &to_middle), "cannot shift a letter");
  if (type.outline > 0) {
    FT_Stroker stroker = nullptr;
    check(FT_Stroker_New(freetype(), &stroker), "cannot make a stroker");
    FT_Stroker_Set(stroker, fixed(type.outline, 64), FT_STROKER_LINECAP_ROUND, FT_STROKER_LINEJOIN_ROUND, 0);
    check(FT_Glyph_StrokeBorder(&glyph, stroker, false, true), "cannot outline a letter");
    FT_Stroker_Done(stroker);
  }
  const FT_Pos c = fixed(std::cos(place.turn), 65536), s = fixed(std::sin(place.turn), 65536);
  FT_Matrix turn{c, s, -s, c};
  FT_Vector to_place{fixed(place.at.x, 64), fixed(-place.at.y, 64)};
  check(FT_Glyph_Transform(glyph, &turn, &to_place), "cannot place a letter");
  check(FT_Glyph_To_Bitmap(&glyph, FT_RENDER_MODE_NORMAL, nullptr, true), "cannot draw a letter");
  const auto* bitmap_glyph = reinterpret_cast<FT_BitmapGlyph>(glyph);
  const FT_Bitmap& bitmap = bitmap_glyph->bitmap;
  for (int row = 0; row < int(bitmap.rows); ++row) {
    for (int column = 0; column < int(bitmap.width); ++column) {
      const int x = bitmap_glyph->left + column, y = row - bitmap_glyph->top;
      const unsigned char coverage = bitmap.buffer[row * bitmap.pitch + column];
      if (coverage != 0) canvas.blend(x, y, paint({x + 0.5, y + 0.5}), coverage / 255.0);
    }
  }
  FT_Done_Glyph(glyph);
}

/// Sets one line, centred on the middle of its baseline.
inline void set_type(Canvas& canvas, std::u32string_view text, const Type& type, const Baseline& baseline,
                     const Fill& paint) {
  check(FT_Set_Char_Size(type.font.face(), 0, FT_F26Dot6(std::lround(type.size * 64)), 72, 72),
        "cannot scale");
  double total = -type.tracking;
  for (const char32_t letter : text) total += advance(type, letter);
  double from_middle = -total / 2;
  for (const char32_t letter : text) {
    const double step = advance(type, letter);  // leaves the letter loaded
    set_letter(canvas, type, step, baseline(from_middle + (step - type.tracking) / 2), paint);
    from_middle += step;
  }
}

}  // namespace drawing
