#include "image/pdf_raster_source.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "image/banded_raster_source.h"
#include "image/pdf_image.h"

namespace nvo {
namespace {

class PdfRasterSource final : public BandedRasterSource {
 public:
  PdfRasterSource(LoadedImage image, SharedFailures failures)
      : BandedRasterSource(std::move(static_cast<ImageMeta&>(image)), "PDF", std::move(failures)) {
    full_image_ = std::move(image.pixels);
    if (!full_image_.empty()) stats_.full_decodes = 1;
  }

  bool supports_row_reads() const override { return true; }
  std::string read_strategy() const override { return "cached PDF raster row reads"; }

 private:
  bool read_band(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                 std::string& error) override {
    return read_from_full_image(y, rows, out, error);
  }

  std::vector<std::uint8_t> decode_full_image() override {
    throw std::runtime_error("PDF raster source has no pixels");
  }
};

}  // namespace

std::shared_ptr<RasterSource> open_pdf_source(const std::string& path, SharedFailures failures) {
  return std::make_shared<PdfRasterSource>(load_first_pdf_page(path), std::move(failures));
}

}  // namespace nvo
