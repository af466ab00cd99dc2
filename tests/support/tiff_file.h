#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <tiffio.h>

namespace nvo::test {

/// A small TIFF to write. `pixel` fills `samples` bytes for the pixel at x, y.
struct TiffFile {
  std::uint32_t width = 1, height = 1;
  std::uint16_t samples = 4;
  std::uint16_t photometric = PHOTOMETRIC_SEPARATED;
  std::vector<std::uint16_t> extra_samples;
  float dpi = 300.0f;  ///< 0 for none
  std::uint32_t rows_per_strip = 32;
  std::uint16_t compression = COMPRESSION_ADOBE_DEFLATE;
  std::function<void(std::uint32_t x, std::uint32_t y, std::uint8_t* samples)> pixel;

  void write(const std::string& path) const {
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    if (!tiff) throw std::runtime_error("cannot write " + path);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rows_per_strip);
    if (!extra_samples.empty())
      TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, static_cast<int>(extra_samples.size()), extra_samples.data());
    if (dpi > 0.0f) {
      TIFFSetField(tiff, TIFFTAG_XRESOLUTION, static_cast<double>(dpi));
      TIFFSetField(tiff, TIFFTAG_YRESOLUTION, static_cast<double>(dpi));
      TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    }
    std::vector<std::uint8_t> row(std::size_t{width} * samples);
    for (std::uint32_t y = 0; y < height; ++y) {
      for (std::uint32_t x = 0; x < width; ++x) pixel(x, y, row.data() + std::size_t{x} * samples);
      TIFFWriteScanline(tiff, row.data(), y, 0);
    }
    TIFFClose(tiff);
  }
};

}  // namespace nvo::test
