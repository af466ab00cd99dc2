#pragma once

#include <cstdint>

#include "image/image_claim.h"
#include "image/tiff_file.h"
#include "image/tiff_reader.h"

namespace nvo {

/// Bytes that a strip or tile has in the file, counted to the file's end; 0 where the file has none of it.
std::uint64_t stored_piece_bytes(const TiffFile& file, std::uint32_t piece);

/// The most samples that so many bytes of the file's compression can unpack to.
std::uint64_t most_unpacked_bytes(const TiffFile& file, std::uint64_t stored_bytes);

/// Samples by the header against the most that the strips or tiles can unpack to. Those that lie on the same
/// bytes count each for itself.
ImageClaim weigh_tiff_pieces(const TiffFile& file, const TiffMeta& meta);

}  // namespace nvo
