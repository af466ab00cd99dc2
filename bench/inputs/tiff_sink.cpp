#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <tiffio.h>

#include "row_sink.h"

namespace nvo::bench {
namespace {

constexpr int kTile = 256;
static_assert(kTile == kBandRows, "a band is a row of tiles");

class TiffSink : public RowSink {
 public:
  TiffSink(const std::string& path, const Art& art, const TiffForm& form)
      : path_(path), width_(art.width), form_(form), tiff_(TIFFOpen(path.c_str(), "w")) {
    if (tiff_ == nullptr) throw std::runtime_error(path + " can't be made");
    TIFFSetField(tiff_, TIFFTAG_IMAGEWIDTH, art.width);
    TIFFSetField(tiff_, TIFFTAG_IMAGELENGTH, art.height);
    TIFFSetField(tiff_, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff_, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff_, TIFFTAG_XRESOLUTION, double(form.dpi));
    TIFFSetField(tiff_, TIFFTAG_YRESOLUTION, double(form.dpi));
    TIFFSetField(tiff_, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(tiff_, TIFFTAG_COMPRESSION, form.compression);
    if (form.predictor) TIFFSetField(tiff_, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    if (form.tiled) {
      TIFFSetField(tiff_, TIFFTAG_TILEWIDTH, kTile);
      TIFFSetField(tiff_, TIFFTAG_TILELENGTH, kTile);
    } else {
      TIFFSetField(tiff_, TIFFTAG_ROWSPERSTRIP, form.rows_per_strip);
    }
    describe_samples();
  }
  ~TiffSink() override {
    if (tiff_ != nullptr) TIFFClose(tiff_);
  }

  void take(const Pixel* pixels, int rows) override {
    samples_.resize(std::size_t(width_) * rows * channels());
    std::uint8_t* at = samples_.data();
    for (int i = 0; i < width_ * rows; ++i, at += channels()) {
      rgba() ? put_rgba(pixels[i], at) : put_inks(pixels[i], at);
    }
    form_.tiled ? write_tiles(rows) : write_strips(rows);
    y_ += rows;
  }

  void finish() override {
    check(TIFFFlush(tiff_) == 1);
    TIFFClose(tiff_);
    tiff_ = nullptr;
  }

 private:
  bool rgba() const { return form_.samples == TiffForm::Samples::rgba; }
  int channels() const { return rgba() ? 4 : 5; }

  void describe_samples() {
    TIFFSetField(tiff_, TIFFTAG_SAMPLESPERPIXEL, channels());
    const std::uint16_t extra = rgba() ? EXTRASAMPLE_UNASSALPHA : EXTRASAMPLE_UNSPECIFIED;
    TIFFSetField(tiff_, TIFFTAG_EXTRASAMPLES, 1, &extra);
    TIFFSetField(tiff_, TIFFTAG_PHOTOMETRIC, rgba() ? PHOTOMETRIC_RGB : PHOTOMETRIC_SEPARATED);
    if (rgba()) return;
    static const char kInks[] = "Cyan\0Magenta\0Yellow\0Black\0White";
    TIFFSetField(tiff_, TIFFTAG_INKSET, INKSET_CMYK);
    TIFFSetField(tiff_, TIFFTAG_NUMBEROFINKS, 5);
    TIFFSetField(tiff_, TIFFTAG_INKNAMES, int{sizeof kInks}, kInks);
  }

  static void put_rgba(const Pixel& pixel, std::uint8_t* at) {
    const Rgb colour = on_screen(pixel);
    at[0] = colour.r;
    at[1] = colour.g;
    at[2] = colour.b;
    at[3] = pixel.alpha;
  }

  /// White is stored as the light that it leaves: 255 is none.
  void put_inks(const Pixel& pixel, std::uint8_t* at) const {
    auto inks = on_film(pixel);
    std::fill(inks.begin() + form_.inks, inks.end(), std::uint8_t{0});
    inks[4] = static_cast<std::uint8_t>(255 - inks[4]);
    std::copy(inks.begin(), inks.end(), at);
  }

  void write_strips(int rows) {
    const std::size_t row_bytes = std::size_t(width_) * channels();
    for (int row = 0; row < rows; row += form_.rows_per_strip) {
      const auto size = tmsize_t(row_bytes * std::min(form_.rows_per_strip, rows - row));
      const auto strip = std::uint32_t((y_ + row) / form_.rows_per_strip);
      check(TIFFWriteEncodedStrip(tiff_, strip, samples_.data() + row * row_bytes, size) == size);
    }
  }

  void write_tiles(int rows) {
    const std::size_t pixel_bytes = std::size_t(channels());
    for (int x = 0; x < width_; x += kTile) {
      const std::size_t bytes = std::min(kTile, width_ - x) * pixel_bytes;
      tile_.assign(kTile * kTile * pixel_bytes, 0);
      for (int row = 0; row < rows; ++row) {
        std::memcpy(&tile_[row * kTile * pixel_bytes],
                    &samples_[(std::size_t(row) * width_ + x) * pixel_bytes], bytes);
      }
      check(TIFFWriteTile(tiff_, tile_.data(), std::uint32_t(x), std::uint32_t(y_), 0, 0) >= 0);
    }
  }

  void check(bool written) const {
    if (!written) throw std::runtime_error(path_ + " can't be written");
  }

  std::string path_;
  int width_, y_ = 0;
  TiffForm form_;
  TIFF* tiff_;
  std::vector<std::uint8_t> samples_, tile_;
};

}  // namespace

std::unique_ptr<RowSink> tiff_sink(const std::string& path, const Art& art, const TiffForm& form) {
  return std::make_unique<TiffSink>(path, art, form);
}

}  // namespace nvo::bench
