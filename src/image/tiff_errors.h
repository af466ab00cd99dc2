#pragma once

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "core/checked.h"

namespace nvo {

/// Throws a runtime error of the TIFF reader; the pieces are streamed in order.
template <class... Pieces>
[[noreturn]] void fail_tiff(const Pieces&... pieces) {
  std::ostringstream text;
  text << "TiffReader: ";
  (text << ... << pieces);
  throw std::runtime_error(text.str());
}

[[noreturn]] inline void fail_tiff_overflow(std::string_view label) {
  throw std::overflow_error("TiffReader: size overflow computing " + std::string(label));
}

inline std::uint64_t tiff_product(std::uint64_t a, std::uint64_t b, std::string_view label) {
  const auto value = checked_product(a, b);
  if (!value) fail_tiff_overflow(label);
  return *value;
}

inline std::uint64_t tiff_sum(std::uint64_t a, std::uint64_t b, std::string_view label) {
  const auto value = checked_sum(a, b);
  if (!value) fail_tiff_overflow(label);
  return *value;
}

}  // namespace nvo
