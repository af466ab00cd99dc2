#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/atomic_file.h"

struct png_struct_def;
struct png_info_def;

namespace nvo {

/// Writes an 8-bit RGB picture row by row. The file takes its name when it is whole; a picture that is not
/// finished leaves nothing. Throws `runtime_error` naming the file.
class PngWriter {
 public:
  PngWriter(const std::string& path, std::uint32_t width, std::uint32_t height, double dpi);
  ~PngWriter() { discard(); }
  PngWriter(const PngWriter&) = delete;
  PngWriter& operator=(const PngWriter&) = delete;

  /// Takes the next row from the top, 3 x width bytes.
  void write_row(const std::uint8_t* rgb);
  /// To be called after the last row.
  void finish();

 private:
  static void take_bytes(png_struct_def* png, unsigned char* data, std::size_t size);
  bool write_pending();
  void begin(std::uint32_t width, std::uint32_t height, double dpi);
  void discard() noexcept;
  [[noreturn]] void fail();

  std::string path_;
  AtomicFile file_;
  std::optional<WriteFailure> failure_;
  std::vector<std::uint8_t> pending_;
  png_struct_def* png_ = nullptr;
  png_info_def* info_ = nullptr;
};

}  // namespace nvo
