#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nvo {

enum class DeviceBoard : std::uint32_t { hoson = 0 };
enum class PrintHead : std::uint32_t { i3200 = 0, i1600 = 1, xp600 = 2 };

/// Board and head as settings and options carry them. A head value outside `PrintHead` counts as i3200.
struct HeadConfig {
  std::uint32_t device_board = 0;
  std::uint32_t print_head = 0;
};
constexpr HeadConfig head_config(PrintHead head) {
  return {static_cast<std::uint32_t>(DeviceBoard::hoson), static_cast<std::uint32_t>(head)};
}

/// One row of a head's catalog. Resolutions are device dots per inch; `bit_depth` is bits per dot.
struct PrintMode {
  std::string id;
  std::string label;
  std::uint32_t x_dpi = 0;
  std::uint32_t y_dpi = 0;
  std::uint32_t passes = 0;
  std::uint32_t bit_depth = 0;
};

/// What a slot of the board prints: the processing order of the channels, and 5 for a slot that stays empty.
enum ChannelCode : std::uint32_t {
  kChannelC = 0,
  kChannelM = 1,
  kChannelY = 2,
  kChannelK = 3,
  kChannelW = 4,
  kChannelOff = 5
};

/// Planes in processing order C, M, Y, K, W.
inline constexpr std::uint32_t kChannelCount = 5;

/// All that tells one print head from another. No other place asks which head a job is for.
struct HeadRow {
  PrintHead head;
  std::string_view name;  ///< in settings (lower case) and in the log
  std::vector<PrintMode> modes;
  std::size_t default_mode;                 ///< row of `modes`
  std::vector<std::uint32_t> default_map;   ///< a `ChannelCode` for each slot of the board, in file order
  std::vector<std::uint32_t> stale_map;     ///< as old settings have it, its last slot lost; empty if none do
  std::string_view extension;               ///< of the print file, with its dot
  std::uint32_t stride_alignment;           ///< bytes of a slot's row are a multiple of it
  std::optional<std::uint32_t> pass_field;  ///< of the print file's header; else it has the mode's passes
};

/// The row of each head, i3200 first.
std::span<const HeadRow> print_heads();
const HeadRow& print_head_row(HeadConfig head);
/// The head of this name, or nothing.
std::optional<PrintHead> find_print_head(std::string_view name);

/// The catalog of a head, in its fixed order.
std::span<const PrintMode> print_modes_for(HeadConfig head);
const PrintMode& default_print_mode(HeadConfig head);
/// The row with exactly this id, or null.
const PrintMode* find_print_mode(HeadConfig head, std::string_view id);
/// The same search in the i3200 catalog, whatever the head.
const PrintMode* find_legacy_print_mode(std::string_view id);
/// The row with the mode's id, else the first row of its resolution and depth, else the head's default.
const PrintMode& resolve_print_mode(HeadConfig head, const PrintMode& mode);

/// A mode given as bare numbers; counts when the mode's id is empty and both resolutions are positive.
struct ExplicitResolution {
  std::uint32_t x_dpi = 0;
  std::uint32_t y_dpi = 0;
  std::uint32_t passes = 0;
};
/// The mode that a job really prints with: always two bits per dot and positive numbers.
PrintMode effective_print_mode(HeadConfig head, const PrintMode& mode, const ExplicitResolution& numbers);

std::string_view print_head_name(HeadConfig head);
/// "C", "M", "Y", "K" or "W", and "Off" for any other code.
std::string_view channel_name(std::uint32_t code);
/// The slots of a map as "K C M Y W Off".
std::string channel_map_text(std::span<const std::uint32_t> map);

/// Number of ink slots in a row of the print file.
std::uint32_t slot_count(HeadConfig head);
/// One `ChannelCode` for each slot, in file order.
std::vector<std::uint32_t> default_channel_map(HeadConfig head);
/// `map` laid over the head's default, cut to the slot count; a map that lost its last slot gets it back.
std::vector<std::uint32_t> normalize_channel_map(HeadConfig head, const std::vector<std::uint32_t>& map);
/// Of the print file, with its dot.
std::string_view print_extension(HeadConfig head);

}  // namespace nvo
