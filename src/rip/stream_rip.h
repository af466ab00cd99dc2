#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include "config/rip_settings.h"
#include "plan/rip_job_options.h"

namespace nvo {

struct RipProgress {
  int stage = 0;  ///< stages done
  int stage_count = 0;
  float percent = 0.0f;
  std::string message;     ///< what begins
  std::uint64_t rows = 0;  ///< device rows screened; 0 where a sheet isn't screened row by row
};

/// The caller's cancel poll said yes; no print file was written.
class RipCancelledError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Turns a sheet into a print file. Memory stays bounded by a strip of source rows, except for device rows
/// coarser than source rows, where the whole sheet is held under a cap of 2 GiB. Failures are exceptions; no
/// partial print file is ever left. Both callables may be empty and run on the calling thread.
class StreamRip {
 public:
  RipJobOptions options;
  std::function<void(const RipProgress&)> progress;
  std::function<bool()> cancel;

  /// One image on a sheet of its own, at its physical size or, where positive and finite, at the given size
  /// in inches; a single given side keeps the proportions.
  void rip_single(const std::string& input_path, const std::string& output_path,
                  const RipSettings& rip_settings, float width_in, float height_in) const;

  /// A prepared sheet. An empty sheet warns and writes nothing.
  void run(SheetLayout sheet, const std::string& output_path, const RipSettings& rip_settings) const;
};

}  // namespace nvo
