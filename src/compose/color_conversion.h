#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "compose/icc_converter.h"
#include "config/icc_settings.h"

namespace nvo {

/// RGB to CMYK without a profile: full grey replacement, in f32.
void rgb_to_cmyk_simple(const std::uint8_t* rgb, std::uint8_t* cmyk, std::size_t pixels);

/// The converters of one worker. A slot is tried once; a failure and its text are remembered.
struct WorkerIcc {
  std::unique_ptr<IccConverter> rgb, cmyk;
  std::string rgb_error, cmyk_error;
  bool rgb_tried = false, cmyk_tried = false;
  bool quiet = false;  ///< opens its converters without a line in the log
};

/// The converter that was opened first for a kind of conversion; the others take its transform over. Building
/// one costs more than many a job converts.
struct FirstOpened {
  std::mutex opening;
  std::unique_ptr<IccConverter> converter;
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
  FirstOpened first_rgb_, first_cmyk_;
  bool force_cmyk_icc_fail_ = false;
  std::atomic<bool> cmyk_runtime_warned_{false};
  std::atomic<bool> rgb_fallback_warned_{false};
};

}  // namespace nvo
