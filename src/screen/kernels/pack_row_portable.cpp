#include <bit>
#include <cstring>

#include "screen/kernels/pack_kernels.h"

namespace nvo {
namespace {

constexpr std::uint64_t kLevelBits = 0x0303030303030303;

// Moves the dot in byte k of each half up by 30 - 10 k bits: the top byte of the half then holds all four,
// the first in the highest bits. No two of the shifted copies overlap, so nothing carries.
constexpr std::uint64_t kGatherFour = std::uint64_t{1} << 30 | 1u << 20 | 1u << 10 | 1u;

void pack_eight(const std::uint8_t* dots, std::uint8_t* out) {
  std::uint64_t levels;
  std::memcpy(&levels, dots, sizeof levels);
  if constexpr (std::endian::native == std::endian::big) levels = __builtin_bswap64(levels);
  levels = (levels & kLevelBits) * kGatherFour;
  out[0] = static_cast<std::uint8_t>(levels >> 24);
  out[1] = static_cast<std::uint8_t>(levels >> 56);
}

}  // namespace

void pack_row_portable(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  std::uint32_t x = 0;
  for (; width - x >= 8; x += 8) pack_eight(dots + x, out + x / 4);
  if (x == width) return;
  std::uint8_t last_dots[8] = {};
  std::uint8_t last_bytes[2];
  std::memcpy(last_dots, dots + x, width - x);
  pack_eight(last_dots, last_bytes);
  std::memcpy(out + x / 4, last_bytes, (width - x + 3) / 4);
}

}  // namespace nvo
