#include "image/tiff_claim.h"

#include <algorithm>
#include <limits>

#include "core/checked.h"
#include "image/tiff_tags.h"

namespace nvo {
namespace {

constexpr std::uint64_t kNoBound = std::numeric_limits<std::uint64_t>::max();

/// Bytes from `stored` bytes, which may give `to` for each `from`.
struct Ratio {
  std::uint64_t to = kNoBound, from = 1;
};

/// The greatest that a compression reaches. Nothing where libtiff doesn't unpack it to samples of 8 bits.
Ratio greatest_ratio(std::uint16_t compression) {
  if (TIFFIsCODECConfigured(compression) == 0) return {0, 1};
  switch (compression) {
    case COMPRESSION_NONE:
      return {1, 1};
    case COMPRESSION_PACKBITS:
      return {128, 2};  // a run
    case COMPRESSION_LZW:
      return {4096 * 8, 12};  // an entry of the whole table, in a code of 12 bits
    case COMPRESSION_DEFLATE:
    case COMPRESSION_ADOBE_DEFLATE:
    case COMPRESSION_PIXARLOG:
      return {1032, 1};
    case COMPRESSION_JPEG:
      return {64 * 8, 1};  // a block in a bit; libtiff takes no subsampling of what is read here
    case COMPRESSION_LZMA:
      return {8192, 1};  // 273 bytes in 14 decisions of no less than 0.022 bits
    case COMPRESSION_ZSTD:
      return {128 << 10, 4};  // a block of one repeated byte
    case COMPRESSION_CCITTRLE:
    case COMPRESSION_CCITTRLEW:
    case COMPRESSION_CCITTFAX3:
    case COMPRESSION_CCITTFAX4:
    case COMPRESSION_JBIG:
    case COMPRESSION_NEXT:
    case COMPRESSION_THUNDERSCAN:
      return {0, 1};  // of 1, 2 or 4 bits
    default:
      return {};  // WebP and LERC have codes that take no bits
  }
}

}  // namespace

std::uint64_t stored_piece_bytes(const TiffFile& file, std::uint32_t piece) {
  const auto offset = TIFFGetStrileOffset(file.get(), piece);
  return offset < file.size() ? std::min(TIFFGetStrileByteCount(file.get(), piece), file.size() - offset) : 0;
}

std::uint64_t most_unpacked_bytes(const TiffFile& file, std::uint64_t stored_bytes) {
  if (stored_bytes == 0) return 0;
  const Ratio ratio =
      greatest_ratio(tiff_tag_or<std::uint16_t>(file.get(), TIFFTAG_COMPRESSION, COMPRESSION_NONE));
  const auto product = checked_product(stored_bytes, ratio.to);
  return product ? *product / ratio.from : kNoBound;
}

ImageClaim weigh_tiff_pieces(const TiffFile& file, const TiffMeta& meta) {
  ImageClaim claim;
  const auto pixels = checked_product(meta.width, meta.height);
  const auto bytes = pixels ? checked_product(*pixels, meta.samples_per_pixel) : std::nullopt;
  claim.claimed_bytes = bytes.value_or(kNoBound);

  const std::uint32_t pieces =
      TIFFIsTiled(file.get()) ? TIFFNumberOfTiles(file.get()) : TIFFNumberOfStrips(file.get());
  for (std::uint32_t piece = 0; piece < pieces && !claim.is_possible(); ++piece) {
    const auto most = most_unpacked_bytes(file, stored_piece_bytes(file, piece));
    claim.possible_bytes = checked_sum(claim.possible_bytes, most).value_or(kNoBound);
  }
  return claim;
}

}  // namespace nvo
