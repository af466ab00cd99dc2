#include <array>
#include <cstdarg>
#include <future>
#include <vector>

#include <zlib.h>

#include "output_file.h"
#include "row_sink.h"

namespace nvo::bench {
namespace {

#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
std::string
format(const char* pattern, ...) {
  char text[600];
  va_list values;
  va_start(values, pattern);
  std::vsnprintf(text, sizeof text, pattern, values);
  va_end(values);
  return text;
}

std::string deflate_bytes(const std::vector<std::uint8_t>& bytes) {
  uLongf size = compressBound(bytes.size());
  std::string packed(size, 0);
  if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size, bytes.data(), bytes.size(), 6) != Z_OK) {
    throw std::runtime_error("zlib is out of memory");
  }
  packed.resize(size);
  return packed;
}

/// Objects one after the other, numbered from 1, the first of which is the catalog.
class PdfFile {
 public:
  explicit PdfFile(const std::string& path) : file_(path) { file_.write("%PDF-1.5\n"); }

  void add(const std::string& body) {
    begin_object();
    file_.write(body + "\nendobj\n");
  }
  void add_stream(const std::string& dictionary, const std::string& data) {
    begin_object();
    file_.write(dictionary + "\nstream\n");
    file_.write(data);
    file_.write("\nendstream\nendobj\n");
  }
  void close() {
    const std::size_t table = file_.size(), count = offsets_.size() + 1;
    file_.write(format("xref\n0 %zu\n0000000000 65535 f \n", count));
    for (const std::size_t offset : offsets_) file_.write(format("%010zu 00000 n \n", offset));
    file_.write(format("trailer\n<< /Size %zu /Root 1 0 R >>\nstartxref\n%zu\n%%%%EOF\n", count, table));
    file_.close();
  }

 private:
  void begin_object() {
    offsets_.push_back(file_.size());
    file_.write(format("%zu 0 obj\n", offsets_.size()));
  }

  OutputFile file_;
  std::vector<std::size_t> offsets_;
};

class SheetPdfSink : public RowSink {
 public:
  SheetPdfSink(const std::string& path, const Art& art) : width_(art.width), file_(path) {
    file_.add("<< /Type /Catalog /Pages 2 0 R >>");
    file_.add("<< /Type /Pages /Kids [3 0 R] /Count 1 >>");
    std::string names, content;
    for (int i = 0; i < kCellColumns * kCellRows; ++i) {
      const Cell cell = cell_of_sheet(i % kCellColumns, i / kCellColumns);
      names += format("/I%d %d 0 R ", i, 5 + 2 * i);
      content +=
          format("q %.3f 0 0 %.3f %.3f %.3f cm /I%d Do Q\n", cell.width * kPoints, cell.height * kPoints,
                 cell.x * kPoints, (art.height - cell.y - cell.height) * kPoints, i);
    }
    for (int i = 0; i < 400; ++i) {
      content += format("0.%d 0.2 0.%d rg %d %d %d 3 re f\n", i % 10, i % 7, 20 + i % 40 * 38,
                        30 + i / 40 * 6, 4 + i % 30);
    }
    file_.add(
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 1584 4320] /Contents 4 0 R /Resources << /XObject << " +
        names + ">> >> >>");
    file_.add_stream(format("<< /Length %zu >>", content.size()), content);
  }

  void take(const Pixel* pixels, int rows) override {
    for (int row = 0; row < rows; ++row, ++y_) take_row(pixels + std::size_t(row) * width_);
  }
  void finish() override { file_.close(); }

 private:
  static constexpr double kPoints = 0.24;  // a pixel
  struct Image {
    std::vector<std::uint8_t> rgb, mask;
  };

  void take_row(const Pixel* pixels) {
    if (cell_row_ == kCellRows) return;
    bool ended = true;
    for (int column = 0; column < kCellColumns; ++column) {
      const Cell cell = cell_of_sheet(column, cell_row_);
      Image& image = images_[std::size_t(column)];
      for (int x = cell.x; y_ >= cell.y && y_ < cell.y + cell.height && x < cell.x + cell.width; ++x) {
        const Rgb colour = on_screen(pixels[x]);
        image.rgb.insert(image.rgb.end(), {colour.r, colour.g, colour.b});
        image.mask.push_back(pixels[x].alpha);
      }
      ended = ended && y_ >= cell.y + cell.height - 1;
    }
    if (ended) write_images();
  }

  /// Those of a row of cells, packed side by side.
  void write_images() {
    std::vector<std::future<std::string>> packed;
    for (const Image& image : images_) {
      for (const auto* samples : {&image.rgb, &image.mask}) {
        packed.push_back(std::async(std::launch::async, deflate_bytes, std::cref(*samples)));
      }
    }
    for (int column = 0; column < kCellColumns; ++column) {
      const Cell cell = cell_of_sheet(column, cell_row_);
      const int mask_object = 6 + 2 * (cell_row_ * kCellColumns + column);
      write_image(cell, format("/DeviceRGB /Filter /FlateDecode /SMask %d 0 R", mask_object),
                  packed[std::size_t(2 * column)].get());
      write_image(cell, "/DeviceGray /Filter /FlateDecode", packed[std::size_t(2 * column + 1)].get());
    }
    images_ = {};
    ++cell_row_;
  }

  void write_image(const Cell& cell, const std::string& colours, const std::string& data) {
    file_.add_stream(
        format("<< /Type /XObject /Subtype /Image /Width %d /Height %d /BitsPerComponent 8 /ColorSpace ",
               cell.width, cell.height) +
            colours + format(" /Length %zu >>", data.size()),
        data);
  }

  int width_, y_ = 0, cell_row_ = 0;
  PdfFile file_;
  std::array<Image, kCellColumns> images_;
};

class ImagePdfSink : public RowSink {
 public:
  ImagePdfSink(const std::string& path, const Art& art, bool white) : art_(art), white_(white), file_(path) {}

  void take(const Pixel* pixels, int rows) override {
    for (int i = 0; i < art_.width * rows; ++i) {
      const auto inks = on_film(pixels[i]);
      samples_.insert(samples_.end(), inks.begin(), inks.end() - (white_ ? 0 : 1));
    }
  }

  void finish() override {
    const int width = art_.width * 72 / 300, height = art_.height * 72 / 300;
    const std::string content = format("q %d 0 0 %d 0 0 cm /I Do Q", width, height);
    const std::string data = deflate_bytes(samples_);
    file_.add("<< /Type /Catalog /Pages 2 0 R >>");
    file_.add("<< /Type /Pages /Kids [3 0 R] /Count 1 >>");
    file_.add(
        format("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 %d %d] /Contents 4 0 R "
               "/Resources << /XObject << /I 5 0 R >> >> >>",
               width, height));
    file_.add_stream(format("<< /Length %zu >>", content.size()), content);
    file_.add_stream(
        format("<< /Type /XObject /Subtype /Image /Width %d /Height %d /BitsPerComponent 8 /ColorSpace %s "
               "/Filter /FlateDecode /Length %zu >>",
               art_.width, art_.height,
               white_ ? "[/DeviceN [/Cyan /Magenta /Yellow /Black /White] /DeviceCMYK 6 0 R]" : "/DeviceCMYK",
               data.size()),
        data);
    if (white_) {  // what a device without white shows: the other four
      file_.add_stream(
          "<< /FunctionType 4 /Domain [0 1 0 1 0 1 0 1 0 1] /Range [0 1 0 1 0 1 0 1] /Length 7 >>",
          "{ pop }");
    }
    file_.close();
  }

 private:
  Art art_;
  bool white_;
  PdfFile file_;
  std::vector<std::uint8_t> samples_;
};

}  // namespace

std::unique_ptr<RowSink> sheet_pdf_sink(const std::string& path, const Art& art) {
  return std::make_unique<SheetPdfSink>(path, art);
}

std::unique_ptr<RowSink> image_pdf_sink(const std::string& path, const Art& art, bool white) {
  return std::make_unique<ImagePdfSink>(path, art, white);
}

}  // namespace nvo::bench
