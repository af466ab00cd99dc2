#include "image/photoshop_channels.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace nvo {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::string_view kSignature = "8BIM";
constexpr std::uint32_t kChannelNames = 1006;
constexpr std::size_t kIdBytes = 2, kSizeBytes = 4;

std::size_t padded(std::size_t size) {
  return size + size % 2;
}

/// Takes `count` bytes off the front; fewer where there are no more.
Bytes take(Bytes& bytes, std::size_t count) {
  const Bytes taken = bytes.first(std::min(count, bytes.size()));
  bytes = bytes.subspan(taken.size());
  return taken;
}

std::uint32_t big_number(Bytes bytes) {
  std::uint32_t number = 0;
  for (const std::uint8_t byte : bytes) number = number << 8 | byte;
  return number;
}

std::vector<std::string> pascal_strings(Bytes bytes) {
  std::vector<std::string> strings;
  while (!bytes.empty()) {
    const Bytes text = take(bytes, std::size_t{1} + bytes.front()).subspan(1);
    strings.emplace_back(text.begin(), text.end());
  }
  return strings;
}

}  // namespace

std::vector<std::string> photoshop_channel_names(Bytes resources) {
  while (!resources.empty()) {
    if (!std::ranges::equal(take(resources, kSignature.size()), kSignature)) break;
    const std::uint32_t id = big_number(take(resources, kIdBytes));
    if (resources.empty()) break;
    take(resources, padded(std::size_t{1} + resources.front()));  // the resource's own name
    const std::uint32_t size = big_number(take(resources, kSizeBytes));
    const Bytes data = take(resources, padded(size));
    if (id == kChannelNames) return pascal_strings(data.first(std::min<std::size_t>(size, data.size())));
  }
  return {};
}

}  // namespace nvo
