#include "image/image_types.h"

#include <system_error>

#include "core/platform/paths.h"
#include "core/text.h"

namespace nvo {

int ImageMeta::role_index(ChannelRole role) const {
  for (const ChannelInfo& channel : channels)
    if (channel.role == role) return channel.index;
  return -1;
}

std::string normalize_path(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(platform::to_path(path), error);
  return error ? path : platform::to_utf8(absolute.lexically_normal());
}

void set_path_texts(const std::string& path, ImagePath& names) {
  names.path = path;
  names.normalized_path = normalize_path(path);
  names.file_name = platform::to_utf8(platform::to_path(path).filename());
  names.safe_name = sanitize_name(names.file_name);
}

}  // namespace nvo
