#include <cstdio>  // jpeglib.h wants it
#include <cstdlib>
#include <iostream>
#include <vector>

#include <jpeglib.h>
#include <png.h>

#include "output_file.h"
#include "row_sink.h"

namespace nvo::bench {
namespace {

void put_png(png_structp png, png_bytep data, png_size_t size) {
  static_cast<OutputFile*>(png_get_io_ptr(png))->write(data, size);
}

[[noreturn]] void give_up(png_structp, png_const_charp message) {
  std::cerr << "libpng: " << message << '\n';
  std::exit(1);
}

class PngSink : public RowSink {
 public:
  PngSink(const std::string& path, const Art& art) : width_(art.width), file_(path) {
    constexpr png_uint_32 kDotsPerMetre = 11811;  // 300 an inch
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, give_up, nullptr);
    info_ = png_create_info_struct(png_);
    png_set_write_fn(png_, &file_, put_png, nullptr);
    png_set_IHDR(png_, info_, png_uint_32(art.width), png_uint_32(art.height), 8, PNG_COLOR_TYPE_RGBA,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_pHYs(png_, info_, kDotsPerMetre, kDotsPerMetre, PNG_RESOLUTION_METER);
    png_write_info(png_, info_);
  }
  ~PngSink() override { png_destroy_write_struct(&png_, &info_); }

  void take(const Pixel* pixels, int rows) override {
    row_.resize(std::size_t(width_) * 4);
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < width_; ++x) {
        const Pixel& pixel = pixels[std::size_t(y) * width_ + x];
        const Rgb colour = pixel.alpha == 0 ? Rgb{} : on_screen(pixel);
        std::uint8_t* at = &row_[std::size_t(x) * 4];
        at[0] = colour.r;
        at[1] = colour.g;
        at[2] = colour.b;
        at[3] = pixel.alpha;
      }
      png_write_row(png_, row_.data());
    }
  }

  void finish() override {
    png_write_end(png_, info_);
    file_.close();
  }

 private:
  int width_;
  OutputFile file_;
  png_structp png_;
  png_infop info_;
  std::vector<std::uint8_t> row_;
};

/// Holds the coded file until its end.
class JpegSink : public RowSink {
 public:
  JpegSink(const std::string& path, const Art& art) : width_(art.width), file_(path) {
    jpeg_.err = jpeg_std_error(&errors_);
    jpeg_create_compress(&jpeg_);
    jpeg_mem_dest(&jpeg_, &coded_, &coded_size_);
    jpeg_.image_width = JDIMENSION(art.width);
    jpeg_.image_height = JDIMENSION(art.height);
    jpeg_.input_components = 3;
    jpeg_.in_color_space = JCS_RGB;
    jpeg_set_defaults(&jpeg_);
    jpeg_set_quality(&jpeg_, 92, TRUE);
    jpeg_.density_unit = 1;  // an inch
    jpeg_.X_density = jpeg_.Y_density = 300;
    jpeg_start_compress(&jpeg_, TRUE);
  }
  ~JpegSink() override {
    jpeg_destroy_compress(&jpeg_);
    std::free(coded_);
  }

  void take(const Pixel* pixels, int rows) override {
    row_.resize(std::size_t(width_) * 3);
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < width_; ++x) {
        const Pixel& pixel = pixels[std::size_t(y) * width_ + x];
        const Rgb colour = on_screen(pixel);
        const auto on_white = [&pixel](std::uint8_t v) {
          return static_cast<std::uint8_t>((v * pixel.alpha + 255 * (255 - pixel.alpha) + 127) / 255);
        };
        std::uint8_t* at = &row_[std::size_t(x) * 3];
        at[0] = on_white(colour.r);
        at[1] = on_white(colour.g);
        at[2] = on_white(colour.b);
      }
      JSAMPROW row = row_.data();
      jpeg_write_scanlines(&jpeg_, &row, 1);
    }
  }

  void finish() override {
    jpeg_finish_compress(&jpeg_);
    file_.write(coded_, coded_size_);
    file_.close();
  }

 private:
  int width_;
  OutputFile file_;
  jpeg_error_mgr errors_;
  jpeg_compress_struct jpeg_;
  unsigned char* coded_ = nullptr;
  unsigned long coded_size_ = 0;
  std::vector<std::uint8_t> row_;
};

class RawCmykSink : public RowSink {
 public:
  RawCmykSink(const std::string& path, const Art& art) : width_(art.width), file_(path) {}
  void take(const Pixel* pixels, int rows) override {
    for (int i = 0; i < width_ * rows; ++i) file_.write(on_film(pixels[i]).data(), 4);
  }
  void finish() override { file_.close(); }

 private:
  int width_;
  OutputFile file_;
};

class GraymapSink : public RowSink {
 public:
  GraymapSink(const std::string& path, const Art& art, int ink) : width_(art.width), ink_(ink), file_(path) {
    file_.write("P5\n" + std::to_string(art.width) + " " + std::to_string(art.height) + "\n255\n");
  }
  void take(const Pixel* pixels, int rows) override {
    std::vector<std::uint8_t> light;
    for (int i = 0; i < width_ * rows; ++i) {
      light.push_back(static_cast<std::uint8_t>(255 - on_film(pixels[i])[std::size_t(ink_)]));
    }
    file_.write(light.data(), light.size());
  }
  void finish() override { file_.close(); }

 private:
  int width_, ink_;
  OutputFile file_;
};

}  // namespace

std::unique_ptr<RowSink> png_sink(const std::string& path, const Art& art) {
  return std::make_unique<PngSink>(path, art);
}

std::unique_ptr<RowSink> jpeg_sink(const std::string& path, const Art& art) {
  return std::make_unique<JpegSink>(path, art);
}

std::unique_ptr<RowSink> raw_cmyk_sink(const std::string& path, const Art& art) {
  return std::make_unique<RawCmykSink>(path, art);
}

std::unique_ptr<RowSink> graymap_sink(const std::string& path, const Art& art, int ink) {
  return std::make_unique<GraymapSink>(path, art, ink);
}

}  // namespace nvo::bench
