#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/icc_settings.h"

namespace nvo {

/// One ICC transform to 8-bit CMYK through lcms2, from 8-bit RGB or CMYK. Rows are interleaved, four bytes a
/// CMYK pixel (0 no ink, 255 full). Used by one thread at a time. Construction, opening and converting throw
/// `bad_alloc` where memory runs out, and opening `system_error` where a profile can't be read for another
/// reason than what stands at its path.
class IccConverter {
 public:
  IccConverter();
  ~IccConverter();
  IccConverter(const IccConverter&) = delete;
  IccConverter& operator=(const IccConverter&) = delete;

  /// Opens the profiles that the settings name and builds the transform. On failure returns false with a text
  /// in `error` (may be null).
  bool open_rgb_to_cmyk(const IccSettings& settings, std::string* error, bool quiet = false);
  bool open_cmyk_to_cmyk(const IccSettings& settings, std::string* error, bool quiet = false);
  /// Takes over what another converter has opened, in place of opening it again. Both may then convert at the
  /// same time.
  void open_as(const IccConverter& other, bool quiet = false);
  /// Converts a row; `src` and `dst` are distinct. False when there is no transform or no pixel. Colours that
  /// came lately aren't computed again.
  bool transform(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels);
  void close();

 private:
  class Transform;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// A profile file of 1 byte to 32 MiB. False with a reason in `error` (may be null); throws `system_error`
/// where the machine fails to read it.
bool read_profile_file(const std::string& path, std::vector<std::uint8_t>& bytes, std::string* error);

}  // namespace nvo
