#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace nvo {

/// The names that a file's Photoshop image resources (TIFF tag 34377) give the samples beyond the colour's
/// own, in their order: resource 1006, Pascal strings in no stated encoding. Empty where the block has none
/// or is damaged before it.
std::vector<std::string> photoshop_channel_names(std::span<const std::uint8_t> resources);

}  // namespace nvo
