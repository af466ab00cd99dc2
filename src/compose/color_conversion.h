#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
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
  /// Converts a row; `src` and `dst` are distinct. False when there is no transform or no pixel.
  bool transform(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels);
  void close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// A profile file of 1 byte to 32 MiB. False with a reason in `error` (may be null); throws `system_error`
/// where the machine fails to read it.
bool read_profile_file(const std::string& path, std::vector<std::uint8_t>& bytes, std::string* error);

/// RGB to CMYK without a profile: full grey replacement, in f32.
void rgb_to_cmyk_simple(const std::uint8_t* rgb, std::uint8_t* cmyk, std::size_t pixels);

/// The converters of one worker. A slot is tried once; a failure and its text are remembered.
struct WorkerIcc {
  std::unique_ptr<IccConverter> rgb, cmyk;
  std::string rgb_error, cmyk_error;
  bool rgb_tried = false, cmyk_tried = false;
  bool quiet = false;  ///< opens its converters without a line in the log
};

/// Colour conversion of a job: which converter a thread uses, and what happens when there is none. A null
/// worker selects the shared converters, one thread at a time; a worker's own need no lock. No profile
/// problem ever stops a job, only a failure of the machine does: RGB falls back to `rgb_to_cmyk_simple`, CMYK
/// passes unchanged, and the log says so once.
class ColorConversion {
 public:
  /// Takes new settings and forgets the shared converters and what was warned of.
  void reset(const IccSettings& settings);
  const IccSettings& settings() const { return settings_; }

  /// True when the settings ask for ICC conversion at all.
  bool wanted() const { return settings_.enabled && !settings_.output_profile.empty(); }

  /// True when a converter is ready for this worker; otherwise `error` says why not.
  bool init_rgb_icc(WorkerIcc* worker, std::string& error);
  bool init_cmyk_icc(WorkerIcc* worker, std::string& error);

  /// Converts a row after the matching `init` returned true; always fills `cmyk`.
  void convert_rgb_row(WorkerIcc* worker, const std::uint8_t* rgb, std::uint8_t* cmyk, std::size_t pixels);
  void convert_cmyk_row(WorkerIcc* worker, const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels);

  /// Warns once per job that RGB goes through the formula, if ICC was wanted.
  void warn_rgb_fallback(const std::string& error);

  bool force_cmyk_icc_fail() const { return force_cmyk_icc_fail_; }

 private:
  IccSettings settings_;
  std::mutex icc_mutex_;
  WorkerIcc shared_;
  bool force_cmyk_icc_fail_ = false;
  std::atomic<bool> cmyk_runtime_warned_{false};
  std::atomic<bool> rgb_fallback_warned_{false};
};

}  // namespace nvo
