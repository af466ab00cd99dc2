// Any bytes as compressed data: the result keeps to its limit, and a smaller limit changes nothing but
// whether there is one.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "image/pdf/pdf_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::uint64_t kLarge = 1 << 20;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto out = nvo::inflate_bytes(bytes, kLarge);
  if (!out) {
    if (nvo::inflate_bytes(bytes, 16)) std::abort();
    return 0;
  }
  if (out->size() > kLarge || nvo::inflate_bytes(bytes, out->size()) != out) std::abort();
  if (!out->empty() && nvo::inflate_bytes(bytes, out->size() - 1)) std::abort();
  return 0;
}
