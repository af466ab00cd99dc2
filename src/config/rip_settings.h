#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/limits.h"

namespace nvo {

/// Ink curve of one channel. `limit` is the ink value (0..255) of a full source byte, `gamma` the exponent. A
/// `lut` of exactly 256 values (0..255) replaces both.
struct ChannelSettings {
  static constexpr Limits kInk{0.0, 255.0};  ///< of `limit` and of a `lut`
  static constexpr Limits kGamma{0.1, 5.0};

  float limit = 255.0f;
  float gamma = 1.0f;
  std::vector<float> lut;
};

enum class PerformanceMode : std::uint8_t { automatic = 0, manual = 1 };
enum class TriState : std::uint8_t { automatic = 0, off = 1, on = 2 };

/// What is asked of the thread plan. A count of 0 leaves the choice to the rules of
/// `core/threads/thread_plan.h`.
struct RipPerformance {
  PerformanceMode mode = PerformanceMode::automatic;
  TriState parallel_sheets = TriState::automatic;
  std::uint32_t sheet_threads = 0;
  TriState parallel_channels = TriState::automatic;
  std::uint32_t channel_threads = 0;
  TriState parallel_rows = TriState::automatic;
  std::uint32_t row_threads = 0;
  std::uint32_t max_concurrent_jobs = 0;
  struct Autotune {
    std::string generated_at, machine, workload, run_case;
  } autotune;
  struct AutotuneInputs {
    static constexpr std::uint32_t kMaxQty = 1000;

    std::string workload = "synthetic_mix";
    std::string folder_path;
    std::string preset = "smoke";
    std::uint32_t qty = 1;
  } autotune_inputs;
};

enum class CopiesPosition : std::uint8_t { number_before_marker = 0, number_after_marker = 1 };

struct FilenameCopies {
  bool enabled = false;
  CopiesPosition position = CopiesPosition::number_before_marker;
  std::vector<std::string> markers = {"copies", "копии", "копий"};
};

/// What belongs to the installation and not to one job. Lengths are inches.
struct RipSettings {
  static constexpr float kDefaultNestingGapIn = 0.5f;
  static constexpr float kDefaultSheetWidthIn = 23.0f;
  static constexpr float kDefaultMaxLengthIn = 120.0f;
  static constexpr Limits kNestingGapIn{0.0, 100.0};
  static constexpr Limits kSheetWidthIn{0.01, 500.0};
  static constexpr Limits kMaxLengthIn{0.01, 10000.0};

  std::array<ChannelSettings, 5> channels = {
      {{220.0f, 1.2f, {}}, {220.0f, 1.2f, {}}, {190.0f, 1.4f, {}}, {150.0f, 1.5f, {}}, {255.0f, 1.0f, {}}}};
  std::string last_tiff_path;
  std::string print_mode_id = "720x1800_6pass";
  float nesting_gap_in = kDefaultNestingGapIn;
  float sheet_width_in = kDefaultSheetWidthIn;
  float max_length_in = kDefaultMaxLengthIn;
  std::string width_policy = "content_bounds";
  bool custom_output_folder_enabled = false;
  std::string custom_output_folder_path;
  std::string ui_language = "en";
  std::string display_units = "in";
  std::string last_seen_release_notes_key;
  RipPerformance rip_performance;
  FilenameCopies filename_copies;
};

/// Reads the installation's settings file. Never throws for bad data: a file that is not there gives the
/// defaults silently, one invalid value gives all defaults and an ERROR line, a key that nobody knows warns.
/// Throws where the machine has failed.
RipSettings load_rip_settings();
RipSettings load_rip_settings(const std::string& path);

/// "in", "mm", "cm" or "m"; an unknown text warns and gives "in".
std::string parse_display_units(const std::string& text);
CopiesPosition parse_filename_copies_position(std::string_view text);

/// Six tables of 256 ink values (0..255), for the channels C, M, Y, K, W and W once more.
std::vector<std::vector<float>> channel_curves(const RipSettings& settings);

}  // namespace nvo
