#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "image/image_claim.h"
#include "image/image_format.h"
#include "image/image_types.h"
#include "image/tiff_reader.h"

namespace nvo {

/// A TIFF as its consumers see it: gray files present themselves as RGB or RGBA.
ImageMeta describe_tiff(const std::string& path, const TiffMeta& tiff);

/// `count` gray pixels of `tiff.samples_per_pixel` bytes to RGB, or RGBA where the file has alpha. Other
/// samples are dropped. `out` has room for `count` x `describe_tiff().channel_count` bytes.
void widen_gray(const TiffMeta& tiff, const std::uint8_t* gray, std::size_t count, std::uint8_t* out);

/// Size, resolution and remarks from the tags alone. Throws the reader's exceptions.
ImageExtent probe_tiff(const std::string& path);

/// Bytes of samples by the header against the most that the file's strips or tiles can unpack to. Throws the
/// reader's exceptions.
ImageClaim weigh_tiff(const std::string& path);

/// Decodes the whole file. Throws "ImageLoader: failed to load TIFF ..." when the reader does.
LoadedImage load_tiff(const std::string& path, const ThreadPlan& threads);

}  // namespace nvo
