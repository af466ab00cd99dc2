#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <tiffio.h>

namespace nvo::test {

/// A TIFF to be written. Tags that are left out of the record are left out of the file.
struct TiffFile {
  std::uint16_t samples = 1;
  std::optional<std::uint16_t> photometric = PHOTOMETRIC_MINISBLACK;
  std::vector<std::uint16_t> extra_samples = {};
  std::vector<std::string> ink_names = {};
  std::uint32_t width = 5, height = 4;
  std::uint16_t bits = 8;
  std::uint16_t planar = PLANARCONFIG_CONTIG;
  std::uint16_t sample_format = SAMPLEFORMAT_UINT;
  std::uint16_t compression = COMPRESSION_LZW;
  std::uint16_t predictor = 0;  ///< 0 leaves the tag out
  std::uint32_t rows_per_strip = 3;
  std::uint32_t tile_width = 0, tile_length = 0;  ///< 0 for strips
  float x_resolution = 0.0f, y_resolution = 0.0f;
  std::uint16_t unit = 0;
  bool big = false;
  std::function<void(TIFF*)> further_tags = {};
  /// Fills the samples of a pixel; without it neighbouring samples and rows just differ.
  std::function<void(std::uint32_t x, std::uint32_t y, std::uint8_t* samples)> pixel = {};

  std::uint32_t row_bytes() const { return width * samples; }

  /// Row by row, samples interleaved.
  std::vector<std::uint8_t> pixels() const {
    std::vector<std::uint8_t> bytes(std::size_t{row_bytes()} * height);
    for (std::uint32_t y = 0; y < height; ++y) {
      std::uint8_t* row = bytes.data() + std::size_t{y} * row_bytes();
      for (std::uint32_t x = 0; pixel && x < width; ++x) pixel(x, y, row + std::size_t{x} * samples);
      for (std::uint32_t i = 0; !pixel && i < row_bytes(); ++i)
        row[i] = static_cast<std::uint8_t>(y * 37 + i * 11 + 3);
    }
    return bytes;
  }

  /// Rows `y` .. `y + rows - 1` of `pixels()`.
  std::vector<std::uint8_t> band(std::uint32_t y, std::uint32_t rows) const {
    const auto all = pixels();
    return {all.begin() + y * row_bytes(), all.begin() + (y + rows) * row_bytes()};
  }
};

/// CMYK and, as the first extra sample, white; 300 dots per inch.
inline TiffFile cmykw_tiff(std::uint32_t width, std::uint32_t height,
                           std::function<void(std::uint32_t x, std::uint32_t y, std::uint8_t* ink)> pixel) {
  TiffFile file;
  file.samples = 5;
  file.photometric = PHOTOMETRIC_SEPARATED;
  file.extra_samples = {EXTRASAMPLE_UNSPECIFIED};
  file.width = width, file.height = height;
  file.rows_per_strip = 32;
  file.x_resolution = file.y_resolution = 300.0f;
  file.pixel = std::move(pixel);
  return file;
}

inline void set_tags(TIFF* tiff, const TiffFile& file) {
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, file.width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, file.height);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, file.samples);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, file.bits);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, file.planar);
  TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, file.sample_format);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, file.compression);
  if (file.predictor != 0) TIFFSetField(tiff, TIFFTAG_PREDICTOR, file.predictor);
  if (file.photometric) TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, *file.photometric);
  if (!file.extra_samples.empty())
    TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, static_cast<int>(file.extra_samples.size()),
                 file.extra_samples.data());
  if (!file.ink_names.empty()) {
    std::string names;
    for (const std::string& name : file.ink_names) names += name + '\0';
    TIFFSetField(tiff, TIFFTAG_INKNAMES, static_cast<int>(names.size()), names.data());
  }
  if (file.x_resolution > 0) TIFFSetField(tiff, TIFFTAG_XRESOLUTION, file.x_resolution);
  if (file.y_resolution > 0) TIFFSetField(tiff, TIFFTAG_YRESOLUTION, file.y_resolution);
  if (file.unit != 0) TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, file.unit);
  if (file.further_tags) file.further_tags(tiff);
  if (file.tile_width == 0) {
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, file.rows_per_strip);
  } else {
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, file.tile_width);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, file.tile_length);
  }
}

inline void write_tiles(TIFF* tiff, const TiffFile& file, const std::vector<std::uint8_t>& pixels) {
  for (std::uint32_t ty = 0; ty < file.height; ty += file.tile_length)
    for (std::uint32_t tx = 0; tx < file.width; tx += file.tile_width) {
      std::vector<std::uint8_t> tile(file.tile_width * file.tile_length * file.samples, 0xEE);
      for (std::uint32_t y = ty; y < std::min(file.height, ty + file.tile_length); ++y)
        for (std::uint32_t i = 0; i < std::min(file.width - tx, file.tile_width) * file.samples; ++i)
          tile[(y - ty) * file.tile_width * file.samples + i] =
              pixels[y * file.row_bytes() + tx * file.samples + i];
      TIFFWriteTile(tiff, tile.data(), tx, ty, 0, 0);
    }
}

/// Writes the file with `pixels()` in it; files of other depths or planes get as many bytes as they need.
/// Mode "a" adds an image to those of the file.
inline void write_tiff(const std::string& path, const TiffFile& file, const char* mode = nullptr) {
  TIFFSetWarningHandler(nullptr);
  TIFFSetErrorHandler(nullptr);
  TIFF* tiff = TIFFOpen(path.c_str(), mode ? mode : file.big ? "w8" : "w");
  if (!tiff) throw std::runtime_error("cannot write " + path);
  set_tags(tiff, file);
  auto pixels = file.pixels();
  if (file.tile_width != 0) {
    write_tiles(tiff, file, pixels);
  } else {
    pixels.resize(pixels.size() * 2);
    for (std::uint16_t plane = 0; plane < (file.planar == PLANARCONFIG_CONTIG ? 1 : file.samples); ++plane)
      for (std::uint32_t y = 0; y < file.height; ++y)
        TIFFWriteScanline(tiff, pixels.data() + std::size_t{y} * file.row_bytes(), y, plane);
  }
  TIFFClose(tiff);
}

/// Makes the compressed data of one strip or tile unreadable.
inline void damage_piece(const std::string& path, std::uint32_t piece) {
  TIFF* tiff = TIFFOpen(path.c_str(), "r");
  if (!tiff) throw std::runtime_error("cannot read " + path);
  const auto offset = TIFFGetStrileOffset(tiff, piece);
  const auto size = TIFFGetStrileByteCount(tiff, piece);
  TIFFClose(tiff);
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file << std::string(size, '\xff');
}

}  // namespace nvo::test
