// Draws the example images and writes them as TIFF files: make_examples FONT_FOLDER OUTPUT_FOLDER.
// What each shows: README.md.
#include <iostream>
#include <memory>

#include <tiffio.h>

#include "drawing.h"

namespace {

using namespace drawing;
using std::numbers::pi;

// ---- Colour ----

struct Rgb {
  double r, g, b;
};
Rgb hex(std::uint32_t v) {
  return {(v >> 16 & 255) / 255.0, (v >> 8 & 255) / 255.0, (v & 255) / 255.0};
}
Rgb mix(Rgb a, Rgb b, double t) {
  return {std::lerp(a.r, b.r, t), std::lerp(a.g, b.g, t), std::lerp(a.b, b.b, t)};
}
Rgb shade(Rgb c, double by) {
  return {clamp01(c.r * by), clamp01(c.g * by), clamp01(c.b * by)};
}

/// Ink on white: black replaces the grey part, more the darker it is.
Paint film(Rgb c, double white = 1) {
  const double grey = 1 - std::max({c.r, c.g, c.b});
  const double black = grey * std::sqrt(grey);
  const auto ink = [&](double v) { return black < 1 ? clamp01((1 - v - black) / (1 - black)) : 0.0; };
  return {ink(c.r), ink(c.g), ink(c.b), black, white};
}
Paint film(std::uint32_t v) {
  return film(hex(v));
}
Paint screen(Rgb c) {
  return {c.r, c.g, c.b, 0, 1};
}
Paint screen(std::uint32_t v) {
  return screen(hex(v));
}

constexpr Paint kBareFilm{};
constexpr Paint kWhiteOnly{0, 0, 0, 0, 1};
constexpr Paint kBlackInk{0, 0, 0, 1, 1};
constexpr Paint kShadow{0, 0, 0, 0.7, 0.35};  // faded by coverage: black ink and white fade together

Fill vertical(std::uint32_t top, std::uint32_t bottom, double y0, double y1) {
  return [=](Point p) { return film(mix(hex(top), hex(bottom), clamp01((p.y - y0) / (y1 - y0)))); };
}

struct Fonts {
  explicit Fonts(const std::string& folder)
      : sans(folder + "/DejaVuSans.ttf"),
        bold(folder + "/DejaVuSans-Bold.ttf"),
        serif(folder + "/DejaVuSerif.ttf"),
        serif_bold(folder + "/DejaVuSerif-Bold.ttf") {}
  Font sans, bold, serif, serif_bold;
};

// ---- A mountain lake at dusk, standing in for a photograph; u to the right, v down, 0 to 1 over the picture
// ----

constexpr double kShore = 0.66;

Rgb sky(double u, double v) {
  const double t = v / kShore;
  Rgb c = mix(hex(0x16365f), hex(0x4f8195), smooth(t * 1.7));
  c = mix(c, hex(0xf0a765), smooth((t - 0.42) * 1.9));
  c = mix(c, hex(0xffe0a8), smooth((t - 0.72) * 2.6));
  const double bank = fractal(u * 3.2 + 3, v * 13 + 2, 5);
  c = mix(c, mix(hex(0x6d5a78), hex(0xffc48a), smooth(t * 1.1)), 0.75 * smooth((bank - 0.5) * 5));
  const double from_sun = std::hypot(u - 0.37, v - 0.43);
  c = mix(c, hex(0xfff1c4), 0.8 * std::exp(-from_sun * from_sun / 0.015));
  return mix(c, hex(0xfffbe8), smooth((0.04 - from_sun) * 150));
}

Rgb hills(double u, double v) {
  struct Range {
    double base, height, frequency, offset;
    std::uint32_t lit, dark;
    double snow_depth;
  };
  static constexpr Range kRanges[] = {{0.54, 0.30, 2.3, 4.1, 0xc99a86, 0x6f6a8c, 0.16},
                                      {0.64, 0.22, 3.1, 19.4, 0x96807c, 0x46587a, 0.09},
                                      {0.68, 0.13, 5.2, 31.7, 0x4f6a62, 0x22424f, 0}};
  Rgb c = sky(u, v);
  for (const Range& range : kRanges) {
    const double ridge = 1 - std::abs(2 * fractal(u * range.frequency + range.offset, 7, 6) - 1);
    const double drop = v - range.base + range.height * (ridge - 0.45);  // below the crest
    if (drop < 0) continue;
    const auto rock = [&](double x) {
      return fractal(x * 13 + drop * 8 + range.offset, drop * 9 - x * 3, 5);
    };
    const double light = clamp01(0.5 + 9 * (rock(u + 0.012) - rock(u)));
    c = mix(hex(range.dark), hex(range.lit), light);
    const double snow = range.snow_depth * (2.4 * fractal(u * 34, drop * 6 + range.offset, 4) - 0.5) - drop;
    c = mix(c, mix(hex(0x98a2c6), hex(0xfff4ec), light), smooth(0.5 + snow * 70) * (range.snow_depth > 0));
    c = mix(c, hex(0xf0b98a), (range.snow_depth > 0 ? 0.5 : 0.25) * smooth(drop / 0.2));  // haze
  }
  return c;
}

bool in_pine(double u, double v) {
  struct Pine {
    double u, top, foot;
  };
  static constexpr Pine kPines[] = {{0.06, 0.36, 0.95}, {0.13, 0.50, 0.97}, {0.20, 0.44, 0.98},
                                    {0.27, 0.64, 1.0},  {0.33, 0.70, 1.0},  {0.76, 0.66, 1.0},
                                    {0.83, 0.52, 0.98}, {0.90, 0.42, 0.97}, {0.96, 0.55, 0.95}};
  for (const Pine& pine : kPines) {
    const double t = (v - pine.top) / (pine.foot - pine.top);
    if (t < 0 || t > 1) continue;
    const double bough = 0.55 + 0.45 * (t * 11 - std::floor(t * 11)) + 0.25 * noise(u * 160, v * 160);
    if (std::abs(u - pine.u) < std::max(0.003, 0.17 * (pine.foot - pine.top) * t * bough)) return true;
  }
  return v > 0.93 + 0.03 * fractal(u * 9, 3, 4) - 0.05 * std::abs(2 * u - 1);
}

Rgb lake_picture(double u, double v) {
  if (in_pine(u, v)) return shade(hex(0x10262b), 0.6 + 0.8 * fractal(u * 120, v * 50, 2));
  if (v < kShore) return hills(u, v);
  const double depth = (v - kShore) / (1 - kShore);
  const double ripple = fractal(u * 10, 30 * std::sqrt(depth) + 2, 4) - 0.5;
  const Rgb mirrored = hills(u + ripple * 0.05 * (0.3 + depth), kShore - (v - kShore) * 1.25 - 0.012);
  return shade(mix(mirrored, hex(0x1d4257), 0.25 + 0.35 * depth), 0.95 + 0.7 * ripple * depth);
}

/// The picture over a rectangle, four samples a pixel; a negative width mirrors it.
Fill lake_fill(Point corner, Point size) {
  return [=](Point p) {
    Rgb sum{};
    for (const Point offset : {Point{-0.25, -0.25}, {0.25, -0.25}, {-0.25, 0.25}, {0.25, 0.25}}) {
      const Point at = p + offset - corner;
      const Rgb sample = lake_picture(at.x / size.x, at.y / size.y);
      sum = {sum.r + sample.r, sum.g + sample.g, sum.b + sample.b};
    }
    return film(shade(sum, 0.25));
  };
}

// ---- Sticker: everything a job with a white channel can hold ----

Canvas draw_sticker(const Fonts& fonts) {
  Canvas art(1200, 1200);
  const Point c{600, 534};
  const Paint navy = film(0x14283f), gold = film(0xe3b45c);

  art.fill(circle(c + Point{8, 16}, 514), kShadow, 26);
  art.fill(circle(c, 512), kWhiteOnly);
  art.fill(circle(c, 496), navy);
  for (const auto& [radius, width] : {std::pair{486.0, 3.0}, {479.0, 1.0}, {372.0, 1.0}, {365.0, 2.0}}) {
    art.fill(ring(c, radius, width), gold);
  }
  for (int i = 0; i < 180; ++i) {
    const double angle = i * pi / 90;
    art.fill(line(polar(c, 466, angle), polar(c, i % 5 ? 472 : 475, angle), 1 + i % 3), gold);
  }
  art.fill(circle(c, 356), lake_fill(c - Point{356, 356}, {712, 712}));
  art.fill(ring(c, 356, 2), kWhiteOnly);

  set_type(art, U"NORTH RIDGE", {fonts.serif_bold, 84, 12}, around(c, 390), solid(kWhiteOnly));
  set_type(art, U"SCREEN PRINT & OUTFITTERS", {fonts.bold, 42, 8}, around(c, -448), solid(gold));
  for (const double angle : {pi * 1.02, -pi * 0.02})
    art.fill(star(polar(c, 420, angle), 24, 9.5, 5), film(0xd9583b));

  const Point banner = c + Point{0, 272};
  for (const double side : {-1.0, 1.0}) {
    const auto at = [&](double x, double y) { return banner + Point{side * x, y}; };
    art.fill(polygon({at(170, -18), at(240, -18), at(220, 14), at(240, 46), at(170, 46)}), film(0x7e2219));
  }
  art.fill(rounded_box(banner + Point{3, 9}, {200, 36}, 6), film(0x0c1017), 10);
  art.fill(rounded_box(banner, {202, 38}, 6), kWhiteOnly);
  art.fill(rounded_box(banner, {198, 34}, 4), vertical(0xdc5a3c, 0xb03423, banner.y - 34, banner.y + 34));
  set_type(art, U"ESTABLISHED 1987", {fonts.serif_bold, 30, 2}, straight(banner + Point{0, 11}),
           solid(kWhiteOnly));

  set_type(art, U"TAKE ONLY PICTURES", {fonts.serif_bold, 40, 7}, straight({600, 1134}), solid(kWhiteOnly));
  for (int i = 0; i < 3; ++i) {
    for (const double side : {-1.0, 1.0}) {
      const Point inner{600 + side * 348, 1111.5 + 9 * i}, outer{600 + side * (512 - 40 * i), 1111.5 + 9 * i};
      art.fill(line(inner, outer, 1 + i), i == 1 ? gold : kWhiteOnly);
    }
  }
  set_type(art, U"Printed on clear film with a white underbase \u00b7 No. 0427", {fonts.sans, 19, 0.5},
           straight({600, 1174}), solid(kWhiteOnly));
  return art;
}

// ---- Badge: a chainring with soft edges and holes ----

Shape chainring(Point c, double radius, int teeth) {
  return [=](Point p) {
    const double angle = std::atan2(p.y - c.y, p.x - c.x);
    const double tooth = std::clamp(std::cos(teeth * angle) * 1.15, -1.0, 1.0);
    return (length(p - c) - radius - 11 * tooth) / 2.4;  // the flanks are steep: keeps the distance modest
  };
}

void draw_bicycle(Canvas& art, Point at, const Paint& paint) {
  const Point rear = at + Point{-57, 22}, front = at + Point{57, 22}, crank = at + Point{-7, 25};
  const Point seat = at + Point{-24, -28}, head = at + Point{40, -26}, bar = at + Point{35, -43};
  for (const Point hub : {rear, front}) {
    art.fill(ring(hub, 34, 4), paint);
    art.fill(circle(hub, 4), paint);
    for (int i = 0; i < 8; ++i) art.fill(line(hub, polar(hub, 33, i * pi / 4 + 0.2), 0.9), paint);
  }
  const std::pair<Point, Point> tubes[] = {{rear, seat},
                                           {rear, crank},
                                           {crank, seat},
                                           {crank, head},
                                           {seat, head},
                                           {front, bar},
                                           {bar, bar + Point{18, -2}},
                                           {seat, seat + Point{-4, -13}}};
  for (const auto& [a, b] : tubes) art.fill(line(a, b, 5), paint);
  art.fill(line(seat + Point{-16, -14}, seat + Point{8, -14}, 6), paint);
  art.fill(circle(crank, 8), paint);
}

Canvas draw_badge(const Fonts& fonts) {
  Canvas art(600, 600);
  const Point c{300, 300};
  const Paint cream = screen(0xfff3dc), ink = screen(0x2b1a24);
  const Fill metal = [c](Point p) {
    const double angle = std::atan2(p.y - c.y, p.x - c.x);
    const double sheen = 0.5 + 0.5 * std::cos(2 * angle + 1.1) * std::cos(angle - 0.6);
    return screen(mix(mix(hex(0xb3203b), hex(0xf2563a), sheen), hex(0xffb347), smooth((sheen - 0.55) * 2)));
  };
  Paint glow = screen(0xff8a3c);
  for (double& v : glow) v *= 0.6;

  art.fill(circle(c, 272), glow, 27);
  art.fill(chainring(c, 256, 42), metal);
  art.fill(ring(c, 238, 2), cream);
  art.fill(ring(c, 181, 3), cream);
  set_type(art, U"SUNDAY RIDERS", {fonts.bold, 43, 5}, around(c, 193), solid(cream));
  set_type(art, U"VELO CLUB", {fonts.bold, 43, 7}, around(c, -226), solid(cream));
  for (const double angle : {pi * 0.98, pi * 0.02}) art.fill(star(polar(c, 210, angle), 12, 5, 5), cream);

  art.fill(ring(c, 152, 36), kBareFilm, 0.7);
  for (int i = 0; i < 5; ++i) {
    const double angle = (i * 0.4 - 0.5) * pi;
    const Point bolt = polar(c, 152, angle);
    art.fill(both(line(c, polar(c, 200, angle), 44), ring(c, 152, 38)), metal);
    art.fill(circle(bolt, 14), cream);
    art.fill(circle(bolt, 11), kBareFilm);
  }
  art.fill(circle(c, 122), ink);
  art.fill(circle(c, 117), cream);
  draw_bicycle(art, c + Point{0, -20}, ink);
  set_type(art, U"EST. 1998", {fonts.bold, 20, 2}, straight(c + Point{0, 68}), solid(ink));
  set_type(art, U"coffee \u00b7 climb \u00b7 repeat", {fonts.sans, 11.5, 0.4}, straight(c + Point{0, 87}),
           solid(ink));
  return art;
}

// ---- Gang sheet: several designs and a control strip with bare film between ----

void draw_varsity(Canvas& art, const Fonts& fonts, Point c) {
  const Paint navy = film(0x15224a);
  const auto layered = [&](std::u32string_view text, double size, double tracking, const Baseline& line,
                           double edge) {
    set_type(art, text, {fonts.serif_bold, size, tracking, edge * 1.7}, line, solid(navy));
    set_type(art, text, {fonts.serif_bold, size, tracking, edge}, line, solid(kWhiteOnly));
    set_type(art, text, {fonts.serif_bold, size, tracking}, line, [&](Point p) {
      const bool mesh = std::fmod(p.x + p.y, 14) < 2 || std::fmod(p.x - p.y + 14000, 14) < 2;
      return film(
          shade(mix(hex(0xe23a3a), hex(0x9c1428), (p.y - c.y + 300) / 640), mesh && size > 200 ? 0.86 : 1));
    });
  };
  layered(U"ATLAS", 132, 14, around(c + Point{0, 572}, 750), 8);
  layered(U"27", 470, 6, straight(c + Point{0, 262}), 15);
  for (const double side : {-1.0, 1.0}) art.fill(star(c + Point{side * 350, 60}, 34, 14, 5), navy);
  art.fill(rounded_box(c + Point{0, 366}, {330, 46}, 46), navy);
  set_type(art, U"TRACK & FIELD", {fonts.bold, 46, 8}, straight(c + Point{0, 383}), solid(film(0xffd45e)));
  set_type(art, U"SPRING SEASON \u00b7 STATE FINALS", {fonts.sans, 24, 4}, straight(c + Point{0, 450}),
           solid(navy));
}

void draw_night_sky(Canvas& art, const Fonts& fonts, Point c) {
  const Point moon = c + Point{70, -90};
  art.fill(circle(moon, 168), {0, 0, 0, 0, 0.32}, 46);
  art.fill(minus(circle(moon, 150), circle(moon + Point{-62, -34}, 128)), [=](Point p) {
    return Paint{0, 0, 0, 0, 0.62 + 0.38 * fractal(p.x / 60, p.y / 60, 4)};
  });
  const Point stars[] = {{-250, -190}, {-190, -90}, {-215, 30}, {-120, 70},
                         {-30, 120},   {90, 150},   {190, 90},  {245, 190}};
  for (std::size_t i = 0; i + 1 < std::size(stars); ++i) {
    art.fill(line(c + stars[i], c + stars[i + 1], 1 + double(i % 3)), kWhiteOnly);
  }
  for (std::size_t i = 0; i < std::size(stars); ++i) {
    art.fill(circle(c + stars[i], 17), kBareFilm);
    art.fill(star(c + stars[i], i % 2 ? 15 : 20, i % 2 ? 4 : 5, 4), kWhiteOnly);
  }
  for (int i = 0; i < 60; ++i) {
    const Point speck = c + Point{700 * (noise(i + 0.5, 3) - 0.5), 560 * (noise(i + 0.5, 90) - 0.54)};
    if (length(speck - moon) > 180) art.fill(circle(speck, 1.2 + i % 3 * 0.8), kWhiteOnly);
  }
  set_type(art, U"NIGHT SHIFT", {fonts.sans, 80, 7, 2}, straight(c + Point{0, 356}), solid(kWhiteOnly));
  set_type(art, U"NIGHT SHIFT", {fonts.sans, 80, 7}, straight(c + Point{0, 356}), solid(kBareFilm));
  set_type(art, U"ASTRONOMY SOCIETY \u00b7 51\u00b0 NORTH", {fonts.sans, 24, 4}, straight(c + Point{0, 408}),
           solid(kWhiteOnly));
}

void draw_honey_label(Canvas& art, const Fonts& fonts, Point c) {
  const Paint brown = film(0x3a2412);
  const Shape panel = rounded_box(c, {225, 130}, 34), inset = rounded_box(c, {214, 119}, 24);
  art.fill(panel, film(0xfff2cf));
  art.fill(minus(rounded_box(c, {217, 122}, 27), inset), brown);
  for (int i = 0; i < 7; ++i) {  // two rows of comb side by side, the right one half a cell lower
    const Point cell = c + Point{-196 + i % 2 * 42.0, -112 + (i / 2) * 48.5 + i % 2 * 24.25};
    std::vector<Point> corners;
    for (int corner = 0; corner < 6; ++corner) corners.push_back(polar(cell, 25, corner * pi / 3));
    art.fill(both(polygon(corners), inset), film(i % 3 ? 0xf7c64a : 0xf0a01a));
  }
  const Point middle = c + Point{44, 0};
  set_type(art, U"Wildflower", {fonts.serif_bold, 45}, straight(middle + Point{0, -40}), solid(brown));
  set_type(art, U"HONEY", {fonts.serif_bold, 66, 6}, straight(middle + Point{0, 27}), solid(film(0xd98008)));
  art.fill(line(middle + Point{-130, 48}, middle + Point{130, 48}, 1), brown);
  set_type(art, U"Cold pressed \u00b7 250 g", {fonts.sans, 21}, straight(middle + Point{0, 77}),
           solid(kBlackInk));
  set_type(art, U"Hollow Lane Apiary, batch 112", {fonts.sans, 14}, straight(middle + Point{0, 100}),
           solid(kBlackInk));
}

void draw_control_strip(Canvas& art, const Fonts& fonts, Point corner) {
  constexpr std::u32string_view kLetters = U"CMYKW";
  for (std::size_t ink = 0; ink < kLetters.size(); ++ink) {
    const double x0 = corner.x + 456.0 * ink;
    set_type(art, kLetters.substr(ink, 1), {fonts.bold, 28}, straight({x0 + 12, corner.y + 32}),
             solid(kBlackInk));
    for (int step = 1; step <= 10; ++step) {
      Paint patch{0, 0, 0, 0, 1};
      patch[ink] = step / 10.0;
      art.fill(rounded_box({x0 + 12 + 37.0 * step, corner.y + 22}, {16, 22}, 2), patch);
    }
  }
}

Canvas draw_gang_sheet(const Fonts& fonts) {
  Canvas art(2400, 1500);
  draw_varsity(art, fonts, {420, 360});
  draw_night_sky(art, fonts, {1210, 370});
  const Point card{1990, 400};
  art.fill(rounded_box(card, {345, 300}, 80), lake_fill(card + Point{380, -400}, {-760, 760}), 30);
  for (const double outline : {6.0, 0.0}) {
    set_type(art, U"GREETINGS", {fonts.serif_bold, 84, 8, outline}, straight(card + Point{0, -130}),
             solid(outline > 0 ? kWhiteOnly : film(0xc4402c)));
  }
  for (int i = 0; i < 8; ++i) draw_honey_label(art, fonts, {285 + 610.0 * (i % 4), 985 + 285.0 * (i / 4)});
  draw_control_strip(art, fonts, {60, 1440});
  return art;
}

// ---- TIFF ----

enum class Samples { kFilm, kRgba };

std::vector<std::uint8_t> to_bytes(const Canvas& art, Samples samples) {
  const auto byte = [](double v) { return std::uint8_t(std::lround(clamp01(v) * 255)); };
  std::vector<std::uint8_t> bytes;
  for (int y = 0; y < art.height(); ++y) {
    for (int x = 0; x < art.width(); ++x) {
      const Paint& p = art.at(x, y);
      if (samples == Samples::kFilm) {
        for (int ink = 0; ink < 4; ++ink) bytes.push_back(byte(p[ink]));
        bytes.push_back(std::uint8_t(255 - byte(p[4])));  // 0 is full white
      } else {
        const std::uint8_t alpha = byte(p[4]);
        for (int i = 0; i < 3; ++i) bytes.push_back(alpha ? byte(p[i] / p[4]) : std::uint8_t{0});
        bytes.push_back(alpha);
      }
    }
  }
  return bytes;
}

void expect(bool good, const std::string& what) {
  if (!good) throw std::runtime_error("cannot write " + what);
}

struct Form {
  const char* name;
  const char* mode;  // libtiff's; "8" asks for BigTIFF
  Samples samples;
  float dpi;
  std::uint32_t tile;  // 0 for strips
};

void write_tiff(const std::string& folder, const Form& form, const Canvas& art) {
  const std::string path = folder + "/" + form.name;
  const std::unique_ptr<TIFF, void (*)(TIFF*)> file(TIFFOpen(path.c_str(), form.mode), TIFFClose);
  expect(file != nullptr, path);
  TIFF* tiff = file.get();
  const bool film = form.samples == Samples::kFilm;
  const std::uint32_t width = art.width(), height = art.height(), samples = film ? 5 : 4;
  const std::uint16_t extra = film ? EXTRASAMPLE_UNSPECIFIED : EXTRASAMPLE_UNASSALPHA;
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, film ? PHOTOMETRIC_SEPARATED : PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &extra);
  if (film) {
    static constexpr char kInks[] = "Cyan\0Magenta\0Yellow\0Black\0White";
    TIFFSetField(tiff, TIFFTAG_INKSET, INKSET_MULTIINK);
    TIFFSetField(tiff, TIFFTAG_NUMBEROFINKS, samples);
    TIFFSetField(tiff, TIFFTAG_INKNAMES, int{sizeof kInks}, kInks);
  }
  TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  TIFFSetField(tiff, TIFFTAG_XRESOLUTION, form.dpi);
  TIFFSetField(tiff, TIFFTAG_YRESOLUTION, form.dpi);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  TIFFSetField(tiff, TIFFTAG_ZIPQUALITY, 9);

  std::vector<std::uint8_t> bytes = to_bytes(art, form.samples);
  const std::size_t pitch = std::size_t(width) * samples;
  if (form.tile == 0) {
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 64);
    for (std::uint32_t y = 0; y < height; ++y)
      expect(TIFFWriteScanline(tiff, &bytes[y * pitch], y, 0) == 1, path);
    return;
  }
  TIFFSetField(tiff, TIFFTAG_TILEWIDTH, form.tile);
  TIFFSetField(tiff, TIFFTAG_TILELENGTH, form.tile);
  std::vector<std::uint8_t> tile(TIFFTileSize(tiff));
  for (std::uint32_t y = 0; y < height; y += form.tile) {
    for (std::uint32_t x = 0; x < width; x += form.tile) {
      for (std::uint32_t row = 0; row < form.tile; ++row) {  // past the image the last row and column go on
        for (std::uint32_t column = 0; column < form.tile; ++column) {
          const std::size_t from =
              std::min(y + row, height - 1) * pitch + std::size_t(std::min(x + column, width - 1)) * samples;
          std::copy_n(&bytes[from], samples, &tile[(std::size_t(row) * form.tile + column) * samples]);
        }
      }
      expect(TIFFWriteTile(tiff, tile.data(), x, y, 0, 0) > 0, path);
    }
  }
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::cerr << "Usage: make_examples FONT_FOLDER OUTPUT_FOLDER\n";
    return 1;
  }
  const Fonts fonts(argv[1]);
  write_tiff(argv[2], {"sticker.tif", "wl", Samples::kFilm, 300, 0}, draw_sticker(fonts));
  write_tiff(argv[2], {"badge_rgba.tif", "wl", Samples::kRgba, 240, 0}, draw_badge(fonts));
  write_tiff(argv[2], {"gang_tiled.tif", "wl8", Samples::kFilm, 300, 256}, draw_gang_sheet(fonts));
  return 0;
} catch (const std::exception& error) {
  std::cerr << "make_examples: " << error.what() << "\n";
  return 1;
}
