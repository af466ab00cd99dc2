#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "image/decode/raster_decoder.h"
#include "image/image_format.h"
#include "image/image_types.h"

namespace nvo {

// PNG, JPEG, BMP and WebP files, told apart by their content. In messages this family is called WIC; those
// that are thrown here for a bad file begin so, or name the cap that an image exceeds, and what the decoder
// says of it stands in the log in front of them. Failures of the machine come through as they are.

/// Taken for a file that states no resolution.
inline constexpr float kWicDefaultDpi = 96.0f;

struct WicImageInfo {
  std::uint32_t width = 0, height = 0;  ///< pixels, above 0
  float dpi_x = 0.0f, dpi_y = 0.0f;     ///< above 0
  /// PNG: alpha of 8 bits, or a tRNS chunk; a 16-bit PNG counts by tRNS alone. WebP: its flag. BMP: an alpha
  /// mask. The fourth byte of a pixel is delivered in any case.
  bool has_alpha = false;
};

struct WicDecodedImage {
  std::uint32_t width = 0, height = 0;
  float dpi = 0.0f;
  bool has_alpha = false;
  std::vector<std::uint8_t> pixels;  ///< RGBA, top row first
};

/// An open file: what its header says, and its pixels to come.
struct WicFile {
  WicImageInfo info;
  std::unique_ptr<RasterDecoder> decoder;  ///< not started
};

/// Sizes of a whole image in memory.
struct WicRgbaLayout {
  std::uint64_t stride = 0, pixel_count = 0, byte_count = 0;
};

/// What a file is opened for. The header is read first; a file that may no longer be read when its pixels
/// are wanted is a failure of the machine.
enum class WicUse { header, pixels };

WicFile open_wic_file(const std::string& path, WicUse use);
WicImageInfo wic_read_info(const std::string& path);
WicDecodedImage wic_decode_rgba(const std::string& path);

/// The caps of whole images: throws with a text that begins with `label` when a side is 0 or the image needs
/// more than 1 GiB.
WicRgbaLayout wic_rgba_layout(std::uint32_t width, std::uint32_t height, const std::string& label);

/// True for a PNG with a tRNS chunk before its pixels. Looks at chunk headers only; throws nothing but what
/// a failure of the machine is.
bool png_has_trns(const std::string& path);

/// Metadata as all consumers see it.
ImageMeta describe_wic(const std::string& path, const WicImageInfo& info);

/// Says at WARN why a file isn't printed, and keeps it for `refusal_reason`.
void log_refusal(const std::string& path, const std::string& reason);

/// What was last said of this path, or empty. Any thread.
std::string refusal_reason(const std::string& path);

ImageExtent probe_wic(const std::string& path);
ImageClaim weigh_wic(const std::string& path);

/// Throws "ImageLoader: failed to load raster image ..." when the decoder does.
LoadedImage load_wic(const std::string& path);

}  // namespace nvo
