#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nvo {

enum class ImageSourceKind : std::uint8_t { unknown = 0, tiff = 1, wic = 2, pdf = 3 };
inline constexpr std::size_t kImageSourceKinds = 4;

/// What one sample of a pixel means. `none` is a colour component without ink meaning: red, green, blue,
/// gray.
enum class ChannelRole : std::int8_t {
  none = -1,
  cyan = 0,
  magenta = 1,
  yellow = 2,
  black = 3,
  white = 4,
  spot = 5,
  alpha = 6
};

struct ChannelInfo {
  ChannelRole role = ChannelRole::none;
  std::string name;
  std::uint8_t index = 0;  ///< position of the sample inside the pixel
};

/// The names of an image file, UTF-8.
struct ImagePath {
  std::string path;             ///< as given
  std::string normalized_path;  ///< absolute, lexically normal
  std::string file_name;
  std::string safe_name;  ///< `file_name` without characters that a file system may refuse
};

/// Where a resolution comes from.
enum class ResolutionSource : std::uint8_t {
  file,     ///< the file states it
  assumed,  ///< the file states none: the format's default
  damaged,  ///< it stood in a part of the file that is damaged: the format's default
  page,     ///< a page has a size of its own and is rasterised at a fixed resolution
};

/// What a viewer may show of a file and the film will not, or what this program had to assume.
struct ImageRemarks {
  ResolutionSource resolution_source = ResolutionSource::file;
  bool has_profile = false;        ///< a colour profile is embedded; it is not used
  std::vector<std::string> notes;  ///< sentences for a person, without the file's name
};

/// What is known of an image apart from its pixels. Resolutions are dots per inch and always above 0.
struct ImageMeta : ImagePath {
  ImageSourceKind kind = ImageSourceKind::unknown;
  std::uint32_t width = 0, height = 0;
  float dpi_x = 0.0f, dpi_y = 0.0f;
  std::uint16_t channel_count = 0;  ///< samples per pixel as delivered
  bool is_rgb = false;              ///< colour components, not separations
  bool is_cmyk = false;             ///< separations with a cyan channel
  bool is_gray = false;             ///< the file was gray; its pixels are delivered as RGB
  bool has_alpha = false;
  std::vector<ChannelInfo> channels;  ///< look one up by role, not by position

  /// `index` of the first channel with this role, or -1.
  int role_index(ChannelRole role) const;
};

/// A whole decoded image. `pixels` holds height rows of width x channel_count bytes, top row first, unpadded;
/// `white_coverage` one byte a pixel, 255 for full white. Read-only once loaded, so threads may share it.
struct LoadedImage : ImageMeta {
  std::vector<std::uint8_t> pixels;
  std::vector<std::uint8_t> white_coverage;
  std::vector<std::string> warnings;
};

/// `path` made absolute and lexically normal; as given where that cannot be done.
std::string normalize_path(const std::string& path);

/// Fills all names from `path`.
void set_path_texts(const std::string& path, ImagePath& names);

}  // namespace nvo
