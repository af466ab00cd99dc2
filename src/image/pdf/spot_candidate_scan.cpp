#include "image/pdf/spot_candidate_scan.h"

#include <cstddef>
#include <cstdint>

#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "core/text.h"
#include "image/pdf/spot_white.h"

namespace nvo {
namespace {

constexpr std::size_t kChunkBytes = 1'048'576;
constexpr std::size_t kCarryBytes =
    128;  // more than any of the words looked for, which may lie across chunks

}  // namespace

bool file_has_spot_candidate(const std::string& path) {
  platform::InputFile file;
  if (const int error = file.open(path)) {
    if (platform::tells_of_path(error)) return false;
    fail_on_file("open", path, error);
  }
  std::string text;
  for (std::uint64_t offset = 0;;) {
    const std::size_t carry = text.size();
    text.resize(carry + kChunkBytes);
    std::size_t count = 0;
    if (const int error = file.read_at(offset, text.data() + carry, kChunkBytes, count))
      fail_on_file("read", path, error);
    if (count == 0) return false;
    offset += count;
    text.resize(carry + count);
    for (std::size_t i = carry; i < text.size(); ++i) text[i] = ascii_lower(text[i]);
    if (has_spot_white_candidate(text)) return true;
    if (text.size() > kCarryBytes) text.erase(0, text.size() - kCarryBytes);
  }
}

}  // namespace nvo
