#pragma once

#include <cstdint>
#include <span>

namespace nvo {

using PackRow = void (*)(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out);

/// `pack_row` for one instruction set. All give the same bytes.
struct PackVariant {
  const char* instruction_set;
  PackRow pack;
};

/// The variants that this machine runs, the fastest last.
std::span<const PackVariant> pack_variants();

void pack_row_portable(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out);
void pack_row_avx2(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out);

}  // namespace nvo
