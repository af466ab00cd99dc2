// Any bytes as a PDF file: the extractor's outcome is a status and planes of the page's size, or none.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "image/pdf/spot_white.h"

namespace {

constexpr std::uint32_t kWidth = 24, kHeight = 17;

void check_plane(const std::vector<std::uint8_t>& plane) {
  if (plane.empty()) return;
  if (plane.size() != kWidth * kHeight) std::abort();
  if (std::count(plane.begin(), plane.end(), 0) == kWidth * kHeight) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const nvo::SpotWhiteResult result = nvo::extract_spot_white_from_bytes(bytes, 0, kWidth, kHeight);
  if (result.status.empty()) std::abort();
  check_plane(result.spot_white_coverage);
  check_plane(result.process_alpha_coverage);
  if (!result.spot_white_coverage.empty() != result.status.starts_with("extracted")) std::abort();
  return 0;
}
