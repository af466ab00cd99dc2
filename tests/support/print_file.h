#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace nvo::test {

/// A print file taken apart by plain means: rows top down, one drop level a byte.
struct PrintFile {
  std::uint32_t x_dpi = 0, y_dpi = 0, stride = 0, height = 0, width = 0, slots = 0, bits = 0, passes = 0;
  std::vector<std::vector<std::uint8_t>> drops;  ///< one plane a slot, height x width

  explicit PrintFile(const std::string& bytes) {
    std::uint32_t field[12] = {};
    if (bytes.size() < sizeof field) return;
    std::memcpy(field, bytes.data(), sizeof field);
    x_dpi = field[1], y_dpi = field[2], stride = field[3], height = field[4], width = field[5];
    slots = field[7], bits = field[8], passes = field[9];
    is_whole = field[0] == 0x5555 && bytes.size() == 48 + std::size_t{stride} * slots * height;
    if (!is_whole) return;
    drops.assign(slots, std::vector<std::uint8_t>(std::size_t{width} * height));
    for (std::size_t cycle = 0; cycle < height; ++cycle)
      for (std::size_t slot = 0; slot < slots; ++slot)
        for (std::size_t x = 0; x < width; ++x) {
          const auto byte = static_cast<std::uint8_t>(bytes[48 + (cycle * slots + slot) * stride + x / 4]);
          drops[slot][(height - 1 - cycle) * width + x] = byte >> (6 - 2 * (x % 4)) & 3;
        }
  }
  bool is_whole = false;
};

}  // namespace nvo::test
