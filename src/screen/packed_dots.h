#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace nvo {

// Drop levels as the printer's board takes them: four dots to a byte, the leftmost in the highest two bits.

inline constexpr std::uint32_t kDotsPerByte = 4;

/// Bytes that `width` dots take.
constexpr std::uint32_t packed_dots_bytes(std::uint32_t width) {
  return width / kDotsPerByte + (width % kDotsPerByte != 0 ? 1 : 0);
}

/// Packs `width` drop levels (low two bits of each byte) into `packed_dots_bytes(width)` bytes of `out`; bits
/// past the last dot are 0. No pointer needs an alignment.
void pack_row(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out);

/// Where the packed rows of one channel of a strip go. Row r is at `top` + r x `step`, and again at each of
/// the offsets of `copies` from there. Only the bytes that hold dots are written.
struct PackedRows {
  std::uint32_t width = 0;  ///< dots of a row
  std::uint8_t* top = nullptr;
  std::ptrdiff_t step = 0;  ///< bytes; negative where the rows run from the bottom up
  std::vector<std::ptrdiff_t> copies;
  std::size_t padding = 0;
  std::atomic<std::uint64_t>* pack_ns = nullptr;  ///< where given, adds up the time that packing takes
};

}  // namespace nvo
