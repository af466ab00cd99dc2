#include "image/tiff_raster_source.h"

#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/machine_failure.h"
#include "image/banded_raster_source.h"
#include "image/tiff_image.h"
#include "image/tiff_reader.h"

namespace nvo {
namespace {

class TiffRasterSource final : public BandedRasterSource {
 public:
  TiffRasterSource(const std::string& path, TiffReader reader, TiffMeta tiff, SharedFailures failures)
      : BandedRasterSource(describe_tiff(path, tiff), "TIFF", std::move(failures)),
        tiff_(std::move(tiff)),
        reader_(std::move(reader)) {}

  bool supports_row_reads() const override { return true; }

  std::string read_strategy() const override {
    return fallback_ ? "fallback full-image decode (" + fallback_reason_ + ")" : "native TIFF partial rows";
  }

 private:
  bool read_band(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out,
                 std::string& error) override {
    if (!fallback_ && read_native(y, rows, out)) return true;
    return read_from_full_image(y, rows, out, error);
  }

  bool read_native(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out) {
    try {
      read_presented(y, rows, out);
      return true;
    } catch (const std::exception& failure) {
      rethrow_machine_failure();
      fall_back(failure.what());
    } catch (...) {
      fall_back("unknown error");
    }
    return false;
  }

  /// Rows in the form that the metadata describes.
  void read_presented(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out) {
    if (!tiff_.is_gray) {
      reader_.read_rows(y, rows, out);
      return;
    }
    reader_.read_rows(y, rows, gray_band_);
    const std::size_t pixels = std::size_t{tiff_.width} * rows;
    if (gray_band_.size() != pixels * tiff_.samples_per_pixel)
      throw std::runtime_error("RasterSource(TIFF): grayscale row buffer size mismatch");
    out.resize(pixels * meta_.channel_count);
    widen_gray(tiff_, gray_band_.data(), pixels, out.data());
  }

  void fall_back(const std::string& reason) {
    fallback_ = true;
    fallback_reason_ = "native row read failed: " + reason;
    log_warn("RasterSource(TIFF): ", fallback_reason_, "; switching to full-load fallback for ", meta_.path);
  }

  std::vector<std::uint8_t> decode_full_image() override {
    std::vector<std::uint8_t> image;
    read_presented(0, tiff_.height, image);
    // From here on only the image itself is needed.
    reader_.close();
    std::vector<std::uint8_t>().swap(gray_band_);
    return image;
  }

  TiffMeta tiff_;
  TiffReader reader_;
  std::vector<std::uint8_t> gray_band_;  // as the file has it; its memory serves all reads
  bool fallback_ = false;
  std::string fallback_reason_;
};

}  // namespace

std::shared_ptr<RasterSource> open_tiff_source(const std::string& path, SharedFailures failures,
                                               const ThreadPlan& threads) {
  TiffReader reader(threads);
  reader.open(path);
  TiffMeta tiff = reader.read_meta();
  return std::make_shared<TiffRasterSource>(path, std::move(reader), std::move(tiff), std::move(failures));
}

}  // namespace nvo
