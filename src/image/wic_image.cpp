#include "image/wic_image.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "image/decode/png_chunks.h"
#include "image/image_loader.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxWidth = 1'073'741'823;
constexpr std::uint64_t kMaxPixels = 268'435'456;
constexpr std::uint64_t kMaxBytes = 1'073'741'824;
constexpr double kUsualGamma = 1 / 2.2, kGammaTolerance = 0.05;

/// Why files weren't printed, by path. The texts of exceptions name the stage only.
struct Refusals {
  std::mutex mutex;
  std::map<std::string, std::string> reasons;
};

Refusals& process_refusals() {
  static Refusals refusals;
  return refusals;
}

/// The frame's decoder, or an exception with the stage that failed.
std::unique_ptr<RasterDecoder> open_decoder(const std::string& path, WicUse use) {
  ByteReader reader(path);
  const int error = reader.open_error();
  // What the probe has read is still there: now the machine is in the way.
  if (use == WicUse::pixels && platform::means_no_permission(error)) fail_on_file("open", path, error);
  std::unique_ptr<RasterDecoder> decoder;
  try {
    decoder = open_raster_decoder(std::move(reader));
  } catch (const DecodeError& failure) {
    log_refusal(path, failure.what());
    throw std::runtime_error("WIC GetFrame failed");
  }
  if (decoder) return decoder;
  log_refusal(path, error == 0 ? "it is no PNG, JPEG, BMP or WebP file" : platform::input_error_text(error));
  throw std::runtime_error("WIC cannot open: " + path);
}

void start(RasterDecoder& decoder, const std::string& path) try {
  decoder.start();
} catch (const DecodeError& failure) {
  log_refusal(path, failure.what());
  throw std::runtime_error("WIC converter init failed");
}

std::vector<std::uint8_t> read_image(RasterDecoder& decoder, const std::string& path) try {
  std::vector<std::uint8_t> pixels;
  decoder.read_image(pixels);
  return pixels;
} catch (const DecodeError& failure) {
  log_refusal(path, failure.what());
  throw std::runtime_error("WIC CopyPixels failed");
}

ImageRemarks wic_remarks(const RasterInfo& raster, const WicImageInfo& info) {
  ImageRemarks remarks;
  remarks.has_profile = raster.has_profile;
  if (!(raster.dpi_x > 0.0)) {
    remarks.resolution_source =
        raster.resolution_is_damaged ? ResolutionSource::damaged : ResolutionSource::assumed;
    std::array<char, 160> size{};
    std::snprintf(size.data(), size.size(),
                  "; %g dots per inch are assumed, which makes it %.2f x %.2f inches", double{kWicDefaultDpi},
                  info.width / double{info.dpi_x}, info.height / double{info.dpi_y});
    remarks.notes.push_back((raster.resolution_is_damaged
                                 ? "its resolution stands in a damaged part of the file"
                                 : "it states no resolution") +
                            std::string(size.data()));
  }
  if (raster.orientation != ExifFacts::kUpright)
    remarks.notes.push_back("a viewer shows it " + std::string(orientation_text(raster.orientation)) +
                            " (Exif orientation " + std::to_string(raster.orientation) +
                            "); the film has it as it is stored");
  if (raster.frames > 1)
    remarks.notes.push_back("it is an animation of " + std::to_string(raster.frames) +
                            " frames; the film has the first one");
  if (raster.gamma > 0.0 && std::abs(raster.gamma / kUsualGamma - 1.0) > kGammaTolerance) {
    std::array<char, 160> text{};
    std::snprintf(text.data(), text.size(),
                  "its gamma (gAMA %g) is not used; a viewer may show it %s than it prints", raster.gamma,
                  raster.gamma > kUsualGamma ? "lighter" : "darker");
    remarks.notes.push_back(text.data());
  }
  return remarks;
}

}  // namespace

void log_refusal(const std::string& path, const std::string& reason) {
  {
    Refusals& refusals = process_refusals();
    const std::lock_guard lock(refusals.mutex);
    refusals.reasons[path] = reason;
  }
  log_warn("Art '", path, "' can't be read: ", reason);
}

std::string refusal_reason(const std::string& path) {
  Refusals& refusals = process_refusals();
  const std::lock_guard lock(refusals.mutex);
  const auto found = refusals.reasons.find(path);
  return found == refusals.reasons.end() ? std::string() : found->second;
}

WicFile open_wic_file(const std::string& path, WicUse use) {
  WicFile file{{}, open_decoder(path, use)};
  const RasterInfo& raster = file.decoder->info();
  if (raster.width == 0 || raster.height == 0) throw std::runtime_error("Empty image: " + path);
  const double dpi_x = raster.dpi_x > 0.0 ? raster.dpi_x : kWicDefaultDpi;
  const double dpi_y = raster.dpi_y > 0.0 ? raster.dpi_y : dpi_x;
  file.info = {raster.width, raster.height, static_cast<float>(dpi_x), static_cast<float>(dpi_y),
               raster.has_alpha || raster.has_transparency_chunk};
  return file;
}

WicImageInfo wic_read_info(const std::string& path) {
  return open_wic_file(path, WicUse::header).info;
}

WicDecodedImage wic_decode_rgba(const std::string& path) {
  const WicFile file = open_wic_file(path, WicUse::pixels);
  const WicImageInfo& info = file.info;
  wic_rgba_layout(info.width, info.height, "WIC full decode");
  start(*file.decoder, path);
  return {info.width, info.height, info.dpi_x, info.has_alpha, read_image(*file.decoder, path)};
}

WicRgbaLayout wic_rgba_layout(std::uint32_t width, std::uint32_t height, const std::string& label) {
  if (width == 0 || height == 0) throw std::runtime_error(label + ": empty image dimensions");
  if (width > kMaxWidth) throw std::runtime_error(label + ": image row is too wide");
  const std::uint64_t pixels = std::uint64_t{width} * height;
  if (pixels > kMaxPixels)
    throw std::runtime_error(label + ": image exceeds pixel cap (" + std::to_string(pixels) + " > " +
                             std::to_string(kMaxPixels) + ")");
  if (pixels * kRgbaBytes > kMaxBytes) throw std::runtime_error(label + ": image exceeds RGBA buffer cap");
  return {width * std::uint64_t{kRgbaBytes}, pixels, pixels * kRgbaBytes};
}

bool png_has_trns(const std::string& path) {
  ByteReader reader(path);
  const bool has_trns =
      reader.is_open() && skip_png_signature(reader) && scan_png_chunks(reader).has_transparency;
  reader.require_sound();
  return has_trns;
}

ImageMeta describe_wic(const std::string& path, const WicImageInfo& info) {
  ImageMeta meta;
  set_path_texts(path, meta);
  meta.kind = ImageSourceKind::wic;
  meta.width = info.width;
  meta.height = info.height;
  meta.dpi_x = info.dpi_x > 0.0f ? info.dpi_x : kWicDefaultDpi;
  meta.dpi_y = info.dpi_y > 0.0f ? info.dpi_y : meta.dpi_x;
  meta.channel_count = kRgbaBytes;
  meta.is_rgb = true;
  meta.has_alpha = info.has_alpha;
  meta.channels = {
      {ChannelRole::none, "Red", 0}, {ChannelRole::none, "Green", 1}, {ChannelRole::none, "Blue", 2}};
  if (info.has_alpha) meta.channels.push_back({ChannelRole::alpha, "Alpha", 3});
  return meta;
}

ImageExtent probe_wic(const std::string& path) {
  const WicFile file = open_wic_file(path, WicUse::header);
  const WicImageInfo& info = file.info;
  return {wic_remarks(file.decoder->info(), info), info.width, info.height, info.dpi_x, info.dpi_y};
}

ImageClaim weigh_wic(const std::string& path) {
  return open_wic_file(path, WicUse::pixels).decoder->claim();
}

LoadedImage load_wic(const std::string& path) {
  WicDecodedImage decoded;
  try {
    decoded = wic_decode_rgba(path);
  } catch (const std::exception& failure) {
    rethrow_machine_failure();
    throw std::runtime_error("ImageLoader: failed to load raster image '" + path + "': " + failure.what());
  }
  // A whole image is placed by its horizontal resolution alone.
  const WicImageInfo info{decoded.width, decoded.height, decoded.dpi, decoded.dpi, decoded.has_alpha};
  LoadedImage image{describe_wic(path, info), {}, {}, {}};
  image.pixels = std::move(decoded.pixels);
  image.white_coverage = build_white_coverage(image);
  return image;
}

}  // namespace nvo
