#include "image/pdf_image.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/machine_failure.h"
#include "image/image_loader.h"
#include "image/pdf/pdf_remarks.h"
#include "image/pdf/pdf_renderer.h"

namespace nvo {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kRgbaBytes = 4;
constexpr std::size_t kRgbaWhiteBytes = 5;

std::string failure_text(const std::string& path, const std::exception& failure) {
  return "ImageLoader: failed to rasterize PDF '" + path + "': " + failure.what();
}

PdfRenderResult render(const std::string& path, std::uint32_t page_index, float dpi) try {
  return PdfRenderer::instance().render(path, page_index, dpi);
} catch (const MachineFailure& failure) {
  throw MachineFailure(failure_text(path, failure));
} catch (const std::exception& failure) {
  rethrow_machine_failure();
  throw std::runtime_error(failure_text(path, failure));
}

/// Tells what became of the page's spot white.
void report_spot_white(const std::string& path, const PdfRenderResult& page, LoadedImage& image) {
  const auto status_or = [&](const char* otherwise) {
    return page.spot_status.empty() ? std::string(otherwise) : page.spot_status;
  };
  if (page.has_spot_white) {
    log_info("ImageLoader(PDF): extracted spot-white mask from '", path,
             "' and mapped it to explicit white coverage. Status: ", status_or("extracted spot-white mask"),
             ".");
  } else if (page.has_spot_candidate &&
             page.spot_status.find("no spot-white candidate") == std::string::npos) {
    const std::string status = status_or("unknown");
    image.warnings.push_back(
        "possible spot-white separation detected; spot-white not extracted; using preview/raster alpha "
        "fallback "
        "for white coverage; status: " +
        status);
    log_warn("ImageLoader(PDF): possible spot-white separation detected in '", path,
             "'. Best-effort PDF spot parser did not extract a supported spot mask; status: ", status,
             ". Using preview/raster alpha fallback for white coverage.");
  }
}

/// Throws unless every plane has the size that the page's geometry gives it. Returns the number of pixels.
std::uint64_t checked_pixel_count(const PdfRenderResult& page) {
  const auto require = [](bool holds, const char* text) {
    if (!holds) throw std::runtime_error(std::string("ImageLoader(PDF): ") + text);
  };
  require(page.width != 0 && page.height != 0, "renderer produced empty raster geometry");
  const auto pixels = checked_mul(page.width, page.height, "PDF pixel geometry");
  const auto bytes = checked_mul(pixels, kRgbaBytes, "PDF RGBA buffer");
  require(page.rgba.size() == bytes, "renderer RGBA buffer size mismatch");
  require(page.process_alpha_coverage.empty() || page.process_alpha_coverage.size() == pixels,
          "renderer process alpha coverage size mismatch");
  require(!page.has_spot_white || page.spot_white_coverage.size() == pixels,
          "renderer spot white coverage size mismatch");
  require(page.has_spot_white || page.spot_white_coverage.empty(),
          "renderer spot white coverage flag mismatch");
  return pixels;
}

/// Puts `alpha` in the place of the raster's own; true when some of it is translucent.
bool replace_alpha(const Bytes& alpha, Bytes& rgba) {
  for (std::size_t i = 0; i < alpha.size(); ++i) rgba[i * kRgbaBytes + 3] = alpha[i];
  return std::ranges::any_of(alpha, [](std::uint8_t value) { return value != 255; });
}

Bytes append_white(const Bytes& rgba, const Bytes& coverage, std::uint64_t pixels) {
  Bytes samples(checked_mul(pixels, kRgbaWhiteBytes, "PDF pixel buffer"));
  const std::uint8_t* from = rgba.data();
  std::uint8_t* to = samples.data();
  for (const std::uint8_t white : coverage) {
    to = std::copy_n(from, kRgbaBytes, to);
    from += kRgbaBytes;
    *to++ = static_cast<std::uint8_t>(~white);
  }
  return samples;
}

std::vector<ChannelInfo> channels_of(bool has_alpha, bool has_white) {
  std::vector<ChannelInfo> channels = {
      {ChannelRole::none, "Red", 0}, {ChannelRole::none, "Green", 1}, {ChannelRole::none, "Blue", 2}};
  if (has_alpha) channels.push_back({ChannelRole::alpha, "Alpha", 3});
  if (has_white) channels.push_back({ChannelRole::white, "White", 4});
  return channels;
}

}  // namespace

LoadedImage image_of_pdf_page(const std::string& path, float dpi, PdfRenderResult page) {
  LoadedImage image;
  set_path_texts(path, image);
  image.kind = ImageSourceKind::pdf;
  report_spot_white(path, page, image);
  image.width = page.width;
  image.height = page.height;
  image.dpi_x = page.dpi_x > 0.0f ? page.dpi_x : dpi;
  image.dpi_y = page.dpi_y > 0.0f ? page.dpi_y : image.dpi_x;
  image.channel_count = page.has_spot_white ? kRgbaWhiteBytes : kRgbaBytes;
  image.is_rgb = true;

  const std::uint64_t pixels = checked_pixel_count(page);
  for (const std::string& remark : remarks_on_page(page)) log_warn("PDF '", path, "': ", remark);
  bool is_translucent = page.has_alpha;
  if (!page.process_alpha_coverage.empty())
    is_translucent = replace_alpha(page.process_alpha_coverage, page.rgba);
  image.has_alpha = is_translucent || page.has_spot_white;
  image.channels = channels_of(image.has_alpha, page.has_spot_white);
  if (page.has_spot_white) {
    image.pixels = append_white(page.rgba, page.spot_white_coverage, pixels);
    image.white_coverage = std::move(page.spot_white_coverage);
  } else {
    image.pixels = std::move(page.rgba);
    image.white_coverage = build_white_coverage(image);
  }
  return image;
}

LoadedImage load_pdf(const std::string& path, std::uint32_t page_index, float dpi) {
  return image_of_pdf_page(path, dpi, render(path, page_index, dpi));
}

ImageExtent probe_pdf(const std::string& path) {
  const PdfPageInfo page = PdfRenderer::instance().probe(path, 0, kPdfDpi);
  std::vector<std::string> notes;
  if (page.page_count > 1)
    notes.push_back("it has " + std::to_string(page.page_count) +
                    " pages; the first is printed, the others are left out");
  return {{ResolutionSource::page, false, std::move(notes)}, page.width, page.height, page.dpi_x, page.dpi_y};
}

LoadedImage load_first_pdf_page(const std::string& path) {
  return load_pdf(path, 0, kPdfDpi);
}

}  // namespace nvo
