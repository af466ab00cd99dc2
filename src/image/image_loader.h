#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/threads/thread_plan.h"
#include "image/image_types.h"

namespace nvo {

/// Decodes a whole image file. Throws with a text that begins "ImageLoader: ". May run on many threads at
/// once; each call divides its work by `threads`.
LoadedImage load_image(const std::string& path, const ThreadPlan& threads = ThreadPlan());

/// One byte a pixel, 255 for full white: the complement of a White channel (stored with 0 as full white),
/// else alpha, else 255 everywhere. Throws when the image's fields contradict each other.
std::vector<std::uint8_t> build_white_coverage(const LoadedImage& image);

/// Size in pixels of a buffer, or an exception "ImageLoader: " label " size overflow".
std::uint64_t checked_mul(std::uint64_t a, std::uint64_t b, const std::string& label);

}  // namespace nvo
