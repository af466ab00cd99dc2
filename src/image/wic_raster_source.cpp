#include "image/wic_raster_source.h"

#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/checked.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "image/banded_raster_source.h"
#include "image/decode/spooled_rows.h"
#include "image/wic_image.h"

namespace nvo {
namespace {

class WicRasterSource final : public BandedRasterSource {
 public:
  WicRasterSource(const std::string& path, WicFile file, SharedFailures failures)
      : BandedRasterSource(describe_wic(path, file.info), "WIC", std::move(failures)) {
    try {
      if (file.decoder->info().needs_whole_frame) wic_rgba_layout(meta_.width, meta_.height, "WIC frame");
      file.decoder->start();
      native_ = std::make_unique<SpooledRows>(std::move(file.decoder), path);
    } catch (const std::exception& failure) {
      rethrow_machine_failure();
      native_error_ = "WIC format converter init failed";
      log_refusal(meta_.path, failure.what());
    }
  }

  bool supports_row_reads() const override { return native_ != nullptr; }

  std::string read_strategy() const override {
    if (native_) return "native WIC CopyPixels rows";
    return "fallback full-image decode (" + native_error_ + ")";
  }

 private:
  using Bytes = std::vector<std::uint8_t>;

  bool read_band(std::uint32_t y, std::uint32_t rows, Bytes& out, std::string& error) override {
    if (native_ && read_native({0, y, meta_.width, rows}, "row", out)) return true;
    return read_from_full_image(y, rows, out, error);
  }

  bool read_rectangle(const RasterRegion& region, Bytes& out, std::string& error) override {
    if (native_ && read_native(region, "region", out)) return true;
    return BandedRasterSource::read_rectangle(region, out, error);
  }

  /// `what` is "row" or "region", for messages.
  bool read_native(const RasterRegion& region, const std::string& what, Bytes& out) {
    const std::uint64_t stride = std::uint64_t{meta_.channel_count} * region.width;
    if (stride > kMaxU32 || stride * region.height > kMaxU32) {
      native_error_ = "WIC native " + what + " read overflow";
      native_.reset();
      return false;
    }
    try {
      // The decoder starts at the top, so it would meet the damage that another source of this file has met.
      if (region.y + region.height > failures_->sound_rows()) {
        give_up_native(what);
        return false;
      }
      out.resize(stride * region.height);
      native_->read(region.x, region.y, region.width, region.height, out.data());
      return true;
    } catch (const DecodeError& failure) {
      failures_->remember_damage_below(native_->rows_decoded());
      log_refusal(meta_.path, failure.what());
      give_up_native(what);
    }
    return false;
  }

  void give_up_native(const std::string& what) {
    native_error_ = "WIC CopyPixels " + what + " read failed";
    native_.reset();
    log_warn("RasterSource(WIC): ", native_error_, "; switching to full-load fallback for ", meta_.path);
  }

  Bytes decode_full_image() override {
    WicDecodedImage image = wic_decode_rgba(meta_.path);
    if (!image.pixels.empty() && (image.width != meta_.width || image.height != meta_.height))
      throw std::runtime_error("the file was replaced by another image");
    return std::move(image.pixels);
  }

  std::unique_ptr<SpooledRows> native_;  // null once rows come from the full image
  std::string native_error_;
};

class WicTopDownDecoder final : public TopDownDecoder {
 public:
  explicit WicTopDownDecoder(std::unique_ptr<RasterDecoder> decoder) : decoder_(std::move(decoder)) {
    decoder_->start();
  }
  void read_rows(std::uint32_t rows, std::uint8_t* out) override {
    for (std::uint32_t row = 0; row < rows; ++row) decoder_->read_row(out + row * decoder_->row_bytes());
  }

 private:
  std::unique_ptr<RasterDecoder> decoder_;
};

}  // namespace

std::shared_ptr<RasterSource> open_wic_source(const std::string& path, SharedFailures failures) {
  return std::make_shared<WicRasterSource>(path, open_wic_file(path, WicUse::pixels), std::move(failures));
}

std::unique_ptr<RowStream> open_wic_stream(const std::string& path) {
  WicFile file = open_wic_file(path, WicUse::pixels);
  if (file.decoder->info().needs_whole_frame) return nullptr;
  auto decoder = std::make_unique<WicTopDownDecoder>(std::move(file.decoder));
  return std::make_unique<RowStream>(describe_wic(path, file.info), std::move(decoder));
}

}  // namespace nvo
