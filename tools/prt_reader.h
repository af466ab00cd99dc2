#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/platform/input_file.h"
#include "output/prt_format.h"

namespace nvo {

/// Whether a file begins as print files do, whole or damaged. One that can't be read may be one: throws
/// `runtime_error`.
bool begins_as_print_file(const std::string& path);

/// A print file open for reading, by row cycles. The file is not trusted: its header must place every dot,
/// its size must be exactly what the header promises, and a row cycle stays below `kMaxCycleBytes`, before
/// anything is allocated. Throws `runtime_error` that names the file and what was found. For one thread.
class PrtReader {
 public:
  static constexpr std::uint64_t kMaxCycleBytes = 16u << 20;

  explicit PrtReader(const std::string& path);

  const std::string& path() const { return path_; }
  const PrtHeader& header() const { return header_; }
  std::uint32_t cycle_len() const { return static_cast<std::uint32_t>(prt_cycle_len(header_)); }

  /// Row cycles that make a good piece to read: a few megabytes, at least one.
  std::uint32_t block_cycles() const;

  /// Reads `count` row cycles from cycle `first` on, counted from the start of the file, which is the image's
  /// bottom.
  void read_cycles(std::uint32_t first, std::uint32_t count, std::vector<std::uint8_t>& out);

  /// Calls `visit` with every row cycle from the first to the last.
  void for_each_cycle(const std::function<void(std::uint32_t cycle, const std::uint8_t* bytes)>& visit);

 private:
  void read_at(std::uint64_t offset, std::uint8_t* out, std::size_t size) const;

  std::string path_;
  platform::InputFile file_;
  PrtHeader header_;
};

}  // namespace nvo
