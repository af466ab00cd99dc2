#include "image/pdf/spot_candidate_scan.h"

#include <cstddef>
#include <fstream>

#include "core/platform/paths.h"
#include "core/text.h"
#include "image/pdf/spot_white.h"

namespace nvo {
namespace {

constexpr std::size_t kChunkBytes = 1'048'576;
constexpr std::size_t kCarryBytes =
    128;  // more than any of the words looked for, which may lie across chunks

}  // namespace

bool file_has_spot_candidate(const std::string& path) {
  std::ifstream file(platform::to_path(path), std::ios::binary);
  std::string text;
  while (file) {
    const std::size_t carry = text.size();
    text.resize(carry + kChunkBytes);
    file.read(text.data() + carry, kChunkBytes);
    const auto count = static_cast<std::size_t>(file.gcount());
    if (count == 0) return false;
    text.resize(carry + count);
    for (std::size_t i = carry; i < text.size(); ++i) text[i] = ascii_lower(text[i]);
    if (has_spot_white_candidate(text)) return true;
    if (text.size() > kCarryBytes) text.erase(0, text.size() - kCarryBytes);
  }
  return false;
}

}  // namespace nvo
