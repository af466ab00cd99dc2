#include "image/image_loader.h"

#include <algorithm>
#include <stdexcept>

#include "core/checked.h"
#include "core/text.h"
#include "image/image_format.h"

namespace nvo {
namespace {

using Plane = std::vector<std::uint8_t>;

void require_whole_geometry(const LoadedImage& image) {
  const bool whole = image.width != 0 ? image.height != 0 && image.channel_count != 0
                                      : image.height == 0 && image.channel_count == 0 && image.pixels.empty();
  if (!whole) throw std::runtime_error("ImageLoader: inconsistent LoadedImage geometry for white coverage");
}

/// Copies sample `index` of every pixel; `flip` is 0xFF for the complement, else 0.
void take_sample(const LoadedImage& image, int index, std::uint8_t flip, Plane& coverage) {
  const std::size_t step = image.channel_count;
  const std::uint8_t* sample = image.pixels.data() + index;
  for (std::uint8_t& byte : coverage) {
    byte = *sample ^ flip;
    sample += step;
  }
}

}  // namespace

std::uint64_t checked_mul(std::uint64_t a, std::uint64_t b, const std::string& label) {
  const auto product = checked_product(a, b);
  if (!product) throw std::overflow_error("ImageLoader: " + label + " size overflow");
  return *product;
}

LoadedImage load_image(const std::string& path, const ThreadPlan& threads) {
  const ImageFormat* format = find_file_format(path);
  if (!format) throw std::runtime_error("ImageLoader: unsupported image extension: " + path);
  return format->load(path, threads);
}

std::vector<std::uint8_t> build_white_coverage(const LoadedImage& image) {
  require_whole_geometry(image);
  if (image.width == 0) return {};

  const auto count = checked_mul(image.width, image.height, "white coverage pixel");
  const auto bytes = checked_mul(count, image.channel_count, "white coverage pixel buffer");
  if (image.pixels.size() != bytes)
    throw std::runtime_error("ImageLoader: interleaved pixel buffer size mismatch for white coverage");
  for (const ChannelInfo& channel : image.channels) {
    const bool decides = channel.role == ChannelRole::white || channel.role == ChannelRole::alpha;
    if (decides && channel.index >= image.channel_count)
      throw std::runtime_error("ImageLoader: channel map index out of range for white coverage");
  }

  Plane coverage(count, 255);
  if (const int white = image.role_index(ChannelRole::white); white >= 0)
    take_sample(image, white, 0xFF, coverage);
  else if (const int alpha = image.role_index(ChannelRole::alpha); alpha >= 0)
    take_sample(image, alpha, 0, coverage);
  return coverage;
}

}  // namespace nvo
