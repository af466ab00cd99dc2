#include "image/pdf_raster_source.h"

#include <utility>
#include <vector>

#include "image/banded_raster_source.h"
#include "image/pdf_image.h"

namespace nvo {
namespace {

class PdfRasterSource final : public BandedRasterSource {
 public:
  explicit PdfRasterSource(LoadedImage image)
      : BandedRasterSource(std::move(static_cast<ImageMeta&>(image))), pixels_(std::move(image.pixels)) {
    if (!pixels_.empty()) stats_.full_decodes = 1;
  }

  bool supports_row_reads() const override { return true; }
  std::string read_strategy() const override { return "cached PDF raster row reads"; }

 private:
  bool read_band(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                 std::string& error) override {
    if (pixels_.empty()) {
      error = "PDF raster source has no pixels";
      return false;
    }
    const auto* first = pixels_.data() + y * row_bytes();
    out.assign(first, first + rows * row_bytes());
    return true;
  }

  std::vector<std::uint8_t> pixels_;
};

}  // namespace

std::shared_ptr<RasterSource> open_pdf_source(const std::string& path, SharedFailures) {
  return std::make_shared<PdfRasterSource>(load_first_pdf_page(path));
}

}  // namespace nvo
