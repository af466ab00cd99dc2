#include "image/tiff_image.h"

#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/checked.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "image/image_loader.h"

namespace nvo {
namespace {

constexpr std::size_t kRgbBytes = 3;
constexpr std::size_t kRgbaBytes = 4;

/// Position of the alpha sample inside a pixel of the file, or -1.
int alpha_sample(const TiffMeta& tiff) {
  for (const ChannelInfo& channel : tiff.channels)
    if (channel.role == ChannelRole::alpha)
      return channel.index < tiff.samples_per_pixel ? channel.index : -1;
  return -1;
}

void present_as_rgb(ImageMeta& meta, bool with_alpha) {
  meta.channels = {
      {ChannelRole::none, "Red", 0}, {ChannelRole::none, "Green", 1}, {ChannelRole::none, "Blue", 2}};
  if (with_alpha) meta.channels.push_back({ChannelRole::alpha, "Alpha", 3});
  meta.channel_count = with_alpha ? kRgbaBytes : kRgbBytes;
}

std::vector<std::uint8_t> widen_whole_image(const TiffMeta& tiff, std::uint16_t channel_count,
                                            const std::vector<std::uint8_t>& raw) {
  const auto pixels = checked_product(tiff.width, tiff.height);
  if (!pixels) throw std::overflow_error("ImageLoader: grayscale TIFF size overflow");
  const auto raw_bytes = checked_product(*pixels, tiff.samples_per_pixel);
  if (!raw_bytes) throw std::overflow_error("ImageLoader: grayscale TIFF raw buffer size overflow");
  if (raw.size() != *raw_bytes)
    throw std::runtime_error("ImageLoader: grayscale TIFF pixel buffer size mismatch");

  std::vector<std::uint8_t> widened(checked_mul(*pixels, channel_count, "grayscale TIFF RGB buffer"));
  widen_gray(tiff, raw.data(), *pixels, widened.data());
  return widened;
}

/// The file's own samples, top row first.
std::pair<TiffMeta, std::vector<std::uint8_t>> decode(const std::string& path,
                                                      const ThreadPlan& threads) try {
  TiffReader reader(threads);
  reader.open(path);
  TiffMeta tiff = reader.read_meta();
  std::vector<std::uint8_t> samples = reader.read_image();
  reader.close();
  return {std::move(tiff), std::move(samples)};
} catch (const std::exception& failure) {
  rethrow_machine_failure();
  throw std::runtime_error("ImageLoader: failed to load TIFF '" + path + "': " + failure.what());
}

}  // namespace

ImageMeta describe_tiff(const std::string& path, const TiffMeta& tiff) {
  ImageMeta meta;
  set_path_texts(path, meta);
  meta.kind = ImageSourceKind::tiff;
  meta.width = tiff.width;
  meta.height = tiff.height;
  meta.dpi_x = tiff.dpi_x > 0.0f ? tiff.dpi_x : kTiffDefaultDpi;
  meta.dpi_y = tiff.dpi_y > 0.0f ? tiff.dpi_y : meta.dpi_x;
  meta.is_rgb = tiff.is_rgb;
  meta.is_gray = tiff.is_gray;
  meta.channels = tiff.channels;
  meta.channel_count = tiff.samples_per_pixel;
  meta.is_cmyk = !meta.is_rgb && meta.role_index(ChannelRole::cyan) >= 0;
  meta.has_alpha = meta.role_index(ChannelRole::alpha) >= 0;
  if (meta.is_gray) present_as_rgb(meta, meta.has_alpha);
  return meta;
}

void widen_gray(const TiffMeta& tiff, const std::uint8_t* gray, std::size_t count, std::uint8_t* out) {
  const int alpha = alpha_sample(tiff);
  const std::size_t step = tiff.samples_per_pixel;
  if (alpha < 0) {
    for (std::size_t i = 0; i < count; ++i, gray += step, out += kRgbBytes)
      out[0] = out[1] = out[2] = gray[0];
    return;
  }
  for (std::size_t i = 0; i < count; ++i, gray += step, out += kRgbaBytes) {
    out[0] = out[1] = out[2] = gray[0];
    out[3] = gray[alpha];
  }
}

ImageExtent probe_tiff(const std::string& path) {
  TiffReader reader;
  reader.open(path);
  const TiffMeta tiff = reader.read_meta();
  return {reader.remarks(tiff), tiff.width, tiff.height, tiff.dpi_x, tiff.dpi_y};
}

ImageClaim weigh_tiff(const std::string& path) {
  const HeldLog unheard;  // the probe has said it
  TiffReader reader;
  reader.open(path);
  return reader.weigh(reader.read_meta());
}

LoadedImage load_tiff(const std::string& path, const ThreadPlan& threads) {
  auto [tiff, samples] = decode(path, threads);
  LoadedImage image{describe_tiff(path, tiff), {}, {}, {}};
  image.pixels = image.is_gray ? widen_whole_image(tiff, image.channel_count, samples) : std::move(samples);
  image.white_coverage = build_white_coverage(image);
  return image;
}

}  // namespace nvo
