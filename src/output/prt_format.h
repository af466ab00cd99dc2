#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "config/print_modes.h"
#include "screen/packed_dots.h"

namespace nvo {

// The print file of the Hoson board: a header of 48 bytes, then one row cycle for each device row from the
// bottom of the image to its top. A row cycle holds one slot of `stride` bytes for each ink slot of the
// board; a slot holds four dots to a byte, the leftmost in the highest two bits. All integers are
// little-endian u32.

inline constexpr std::size_t kPrtHeaderSize = 48;
inline constexpr std::uint32_t kPrtMagic = 0x00005555;
inline constexpr std::uint32_t kPrtBitsPerDot = 2;

/// The fields that tell one file from another; the magic number and the bits per dot are the same in all.
struct PrtHeader {
  std::uint32_t x_dpi = 0, y_dpi = 0;
  std::uint32_t stride = 0;    ///< bytes of one slot of one row
  std::uint32_t height = 0;    ///< device rows
  std::uint32_t width = 0;     ///< dots per row
  std::uint32_t channels = 0;  ///< slots in a row cycle
  std::uint32_t pass_field = 0;
  std::array<std::uint32_t, 3> reserved{};  ///< 0 in every file written here

  bool operator==(const PrtHeader&) const = default;
};

/// Bytes of a slot row and of a row cycle.
struct PrtRowLayout {
  std::uint32_t stride = 0;
  std::uint32_t cycle_len = 0;
};

/// Layout for a width in dots on a head. Throws `overflow_error` where a size exceeds 32 bits.
PrtRowLayout prt_row_layout(HeadConfig head, std::uint32_t width);

/// The header of a file for a head: resolution and passes are those of the catalog row that `mode` stands
/// for. Throws as `prt_row_layout` does.
PrtHeader make_prt_header(HeadConfig head, const PrintMode& mode, std::uint32_t width, std::uint32_t height);

std::array<std::uint8_t, kPrtHeaderSize> encode_prt_header(const PrtHeader& header);

/// Reads a header from an untrusted file. Throws `runtime_error` naming the field, the value found and the
/// value allowed, unless it places every dot: right magic, two bits, as many slots as a head has, a size
/// above 0, a stride that holds the width, and a row cycle below 4 GiB.
PrtHeader decode_prt_header(std::span<const std::uint8_t, kPrtHeaderSize> bytes);

/// Bytes of a row cycle and of the whole file, for a header made or decoded here.
std::uint64_t prt_cycle_len(const PrtHeader& header);
std::uint64_t prt_file_size(const PrtHeader& header);

/// The reverse of `pack_row`.
void unpack_row(const std::uint8_t* packed, std::uint32_t width, std::uint8_t* dots);

}  // namespace nvo
