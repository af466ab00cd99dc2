// Any bytes as a TIFF file: the tags, then bands in the order of a job. Only exceptions may come of it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "core/log.h"
#include "image/tiff_reader.h"
#include "memory_file.h"

namespace {

constexpr std::uint64_t kMaxImageBytes = 16 << 20;  // larger images only cost time

void read_bands(const std::string& path) {
  nvo::TiffReader reader;
  reader.open(path);
  const nvo::TiffMeta meta = reader.read_meta();
  if (std::uint64_t{meta.width} * meta.samples_per_pixel > kMaxImageBytes / meta.height) return;

  std::vector<std::uint8_t> rows;
  const auto read = [&](std::uint32_t y, std::uint32_t count) {
    try {
      reader.read_rows(y, std::min(count, meta.height - y), rows);
    } catch (const std::exception&) {  // a damaged band leaves the reader usable
    }
  };
  read(meta.height - 1, 1);
  read(meta.height / 2, 20);
  read(meta.height / 3, meta.height / 3 + 1);
  read(0, 5);
}

}  // namespace

/// A header may claim any size; an allocation that fails must come back as such instead of ending the
/// process.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return __asan_default_options();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int sink = nvo::Logger::instance().add_sink([](nvo::LogLevel, const std::string&) {});
  static_cast<void>(sink);
  const nvo::fuzz::MemoryFile file(data, size);
  if (!file.written()) return 0;
  try {
    read_bands(file.path());
  } catch (const std::exception&) {
  }
  return 0;
}
