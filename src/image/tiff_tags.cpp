#include "image/tiff_tags.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/log.h"
#include "image/photoshop_channels.h"
#include "image/tiff_errors.h"

namespace nvo {
namespace {

constexpr std::uint16_t kMaxSamplesPerPixel = 64;
constexpr float kCentimetresPerInch = 2.54f;
constexpr std::uint64_t kMaxInkNameBytes = 256;

template <class Value>
Value defaulted_tag_or(TIFF* tiff, std::uint32_t tag, Value fallback) {
  Value value = fallback;
  return TIFFGetFieldDefaulted(tiff, tag, &value) == 1 ? value : fallback;
}

void refuse_bad_size(const TiffMeta& meta) {
  if (meta.width == 0 || meta.height == 0) fail_tiff("invalid TIFF image size (width/height is zero)");
  if (meta.samples_per_pixel == 0) fail_tiff("invalid TIFF samples-per-pixel=0");
  if (meta.samples_per_pixel > kMaxSamplesPerPixel)
    fail_tiff("unsupported TIFF samples-per-pixel=", meta.samples_per_pixel,
              ". Maximum supported channel count is ", kMaxSamplesPerPixel, ".");
}

void refuse_bad_samples(const TiffMeta& meta, std::uint16_t planar, std::uint16_t format) {
  if (meta.bits_per_sample != 8)
    fail_tiff("unsupported TIFF bits-per-sample=", meta.bits_per_sample, ". Only 8-bit TIFF is supported.");
  if (planar != PLANARCONFIG_CONTIG)
    fail_tiff("unsupported TIFF planar configuration (",
              planar == PLANARCONFIG_SEPARATE ? "PLANARCONFIG_SEPARATE" : std::to_string(planar),
              "). Only interleaved PLANARCONFIG_CONTIG is supported.");
  if (format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID)
    fail_tiff("unsupported TIFF sample format=", format,
              ". Only unsigned integer 8-bit samples are supported.");
}

void read_layout(TIFF* tiff, TiffMeta& meta) {
  meta.width = tiff_tag_or<std::uint32_t>(tiff, TIFFTAG_IMAGEWIDTH, 0);
  meta.height = tiff_tag_or<std::uint32_t>(tiff, TIFFTAG_IMAGELENGTH, 0);
  meta.samples_per_pixel = defaulted_tag_or<std::uint16_t>(tiff, TIFFTAG_SAMPLESPERPIXEL, 0);
  meta.bits_per_sample = defaulted_tag_or<std::uint16_t>(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  const auto planar = defaulted_tag_or<std::uint16_t>(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  const auto format = defaulted_tag_or<std::uint16_t>(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
  refuse_bad_size(meta);
  refuse_bad_samples(meta, planar, format);
}

float dots_per_inch(float resolution, std::uint16_t unit) {
  if (!(resolution > 0.0f)) return 0.0f;
  return unit == RESUNIT_CENTIMETER ? resolution * kCentimetresPerInch : resolution;
}

void read_resolution(TIFF* tiff, TiffMeta& meta) {
  meta.x_resolution = tiff_tag_or(tiff, TIFFTAG_XRESOLUTION, 0.0f);
  meta.y_resolution = tiff_tag_or(tiff, TIFFTAG_YRESOLUTION, 0.0f);
  meta.resolution_unit = tiff_tag_or<std::uint16_t>(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
  const float x = dots_per_inch(meta.x_resolution, meta.resolution_unit);
  const float y = dots_per_inch(meta.y_resolution, meta.resolution_unit);
  meta.dpi_x = x > 0.0f ? x : y > 0.0f ? y : kTiffDefaultDpi;
  meta.dpi_y = y > 0.0f ? y : meta.dpi_x;
}

void refuse_too_few_samples(const TiffMeta& meta, unsigned least, std::string_view colour) {
  if (meta.samples_per_pixel < least)
    fail_tiff("unsupported TIFF samples-per-pixel=", meta.samples_per_pixel, ". Expected at least ", least,
              " channels (", colour, ").");
}

std::uint16_t read_photometric(TIFF* tiff) {
  return tiff_tag_or<std::uint16_t>(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
}

void read_colour(TIFF* tiff, TiffMeta& meta) {
  const std::uint16_t photometric = read_photometric(tiff);
  switch (photometric) {
    case PHOTOMETRIC_SEPARATED:
      meta.is_rgb = false;
      refuse_too_few_samples(meta, 4, "CMYK");
      break;
    case PHOTOMETRIC_RGB:
      meta.is_rgb = true;
      refuse_too_few_samples(meta, 3, "RGB");
      break;
    case PHOTOMETRIC_MINISWHITE:
    case PHOTOMETRIC_MINISBLACK:
      meta.is_rgb = meta.is_gray = true;
      meta.min_is_white = photometric == PHOTOMETRIC_MINISWHITE;
      break;
    default:
      fail_tiff("unsupported TIFF photometric=", photometric);
  }
}

std::vector<std::uint16_t> read_extra_samples(TIFF* tiff) {
  std::uint16_t count = 0;
  const std::uint16_t* types = nullptr;
  if (TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &count, &types) != 1 || !types) return {};
  return {types, types + count};
}

std::vector<std::string> read_editor_names(TIFF* tiff) {
  std::uint32_t count = 0;
  const std::uint8_t* resources = nullptr;
  if (TIFFGetField(tiff, TIFFTAG_PHOTOSHOP, &count, &resources) != 1 || !resources) return {};
  return photoshop_channel_names({resources, count});
}

const char* unit_name(std::uint16_t unit) {
  switch (unit) {
    case RESUNIT_NONE:
      return "none";
    case RESUNIT_INCH:
      return "inch";
    case RESUNIT_CENTIMETER:
      return "centimeter";
    default:
      return "unknown";
  }
}

void log_meta(const TiffMeta& meta) {
  const char* gray = !meta.is_gray ? "" : meta.min_is_white ? " [Gray/min-white]" : " [Gray]";
  log_info("TIFF meta: ", meta.width, "x", meta.height, " spp=", meta.samples_per_pixel,
           " bps=", meta.bits_per_sample, " res_raw=", meta.x_resolution, "x", meta.y_resolution,
           " unit=", unit_name(meta.resolution_unit), " dpi_norm=", meta.dpi_x, "x", meta.dpi_y,
           meta.is_bigtiff ? " [BigTIFF]" : " [TIFF]", gray);
  for (const ChannelInfo& channel : meta.channels)
    log_debug("  channel[", int{channel.index}, "] '", channel.name,
              "' role=", int{static_cast<std::uint8_t>(channel.role)});
}

}  // namespace

std::vector<std::string> read_ink_names(TIFF* tiff, std::uint16_t samples_per_pixel) {
  const auto ink_count = tiff_tag_or<std::uint16_t>(tiff, TIFFTAG_NUMBEROFINKS, 0);
  const char* stored = tiff_tag_or<const char*>(tiff, TIFFTAG_INKNAMES, nullptr);
  if (ink_count == 0 || !stored) return {};

  const auto wanted = std::min(samples_per_pixel, ink_count);
  const auto bound = tiff_product(wanted, kMaxInkNameBytes, "TIFF InkNames scan bound");
  std::vector<std::string> names;
  // libtiff hands out InkNames without its length, but only after it has counted the NULs in it and made
  // NumberOfInks that count. So `wanted` names end inside its storage, and the scan never reads past the
  // last.
  for (std::uint64_t position = 0; names.size() < wanted;) {
    const auto length = ::strnlen(stored + position, bound - position);
    if (length == bound - position) {
      log_warn("TiffReader: TIFF InkNames is not NUL-terminated within ", bound,
               " bytes; ignoring remaining names");
      break;
    }
    names.emplace_back(stored + position, length);
    position += length + 1;
  }
  if (ink_count > samples_per_pixel)
    log_warn("TiffReader: TIFF NumberOfInks=", ink_count, " exceeds samples-per-pixel=", samples_per_pixel,
             "; ignoring extra ink names");
  return names;
}

TiffSampleTags read_tiff_sample_tags(TIFF* tiff, std::uint16_t samples_per_pixel) {
  TiffSampleTags tags{
      read_photometric(tiff), samples_per_pixel, read_extra_samples(tiff), {}, read_editor_names(tiff)};
  if (tags.photometric == PHOTOMETRIC_SEPARATED && samples_per_pixel > 4)
    tags.ink_names = read_ink_names(tiff, samples_per_pixel);
  return tags;
}

TiffMeta read_tiff_tags(TIFF* tiff) {
  TiffMeta meta;
  read_layout(tiff, meta);
  read_resolution(tiff, meta);
  meta.is_bigtiff = TIFFIsBigTIFF(tiff) != 0;
  read_colour(tiff, meta);
  meta.channels = detect_channel_roles(read_tiff_sample_tags(tiff, meta.samples_per_pixel));
  log_meta(meta);
  return meta;
}

}  // namespace nvo
