#pragma once

#include <cstdint>

namespace nvo {

/// What a file claims against what it can hold: bytes of samples by its header, and the most that its stored
/// data can unpack to by its compression's greatest ratio.
struct ImageClaim {
  std::uint64_t claimed_bytes = 0;
  std::uint64_t possible_bytes = 0;

  bool is_possible() const { return claimed_bytes <= possible_bytes; }
};

}  // namespace nvo
