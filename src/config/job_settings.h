#pragma once

#include <cstdint>
#include <string>

#include "config/icc_settings.h"
#include "config/print_modes.h"
#include "config/print_settings.h"
#include "config/rip_settings.h"

namespace nvo {

/// What a print job is.
struct JobSettings : PrintSettings {
  static constexpr Limits kGapIn{};
  static constexpr Limits kSheetLengthIn{.least = 0.01};

  DeviceBoard device_board = DeviceBoard::hoson;
  PrintHead print_head = PrintHead::i3200;
  float repeated_file_gap_in = RipSettings::kDefaultNestingGapIn;
  float sheet_width_in = RipSettings::kDefaultSheetWidthIn;
  float max_length_in = RipSettings::kDefaultMaxLengthIn;

  HeadConfig head() const {
    return {static_cast<std::uint32_t>(device_board), static_cast<std::uint32_t>(print_head)};
  }
};

/// The built-in values with gap, widths and mode taken from the installation's settings.
JobSettings default_job_settings(const RipSettings& rip_settings, const IccSettings& icc_settings);

/// `job_settings.json` beside the main settings file.
std::string job_settings_path();

/// Reads the job file over defaults from the installation's settings. Never throws for bad data: a file that
/// is not there gives the defaults silently, an unreadable one the defaults and an ERROR line, and a bad
/// value falls back key by key. What is not taken as it stands there WARNs. Throws where the machine has
/// failed.
JobSettings load_job_settings(const RipSettings& rip_settings);
JobSettings load_job_settings(const RipSettings& rip_settings, const std::string& path);

}  // namespace nvo
