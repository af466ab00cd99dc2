#include "config/print_modes.h"

#include <algorithm>

namespace nvo {
namespace {

constexpr std::uint32_t kC = kChannelC, kM = kChannelM, kY = kChannelY, kK = kChannelK, kW = kChannelW,
                        kOff = kChannelOff;

// Explained in print_modes.h. The order is that in which a head is guessed where several could be meant.
const std::vector<HeadRow>& head_rows() {
  static const std::vector<HeadRow> rows = {
      {.head = PrintHead::i3200,
       .name = "i3200",
       .modes =
           {
               {"360x1200_2pass", "360x1200 2PASS", 360, 1200, 2, 2},
               {"360x1800_3pass", "360x1800 3PASS", 360, 1800, 3, 2},
               {"360x2400_4pass", "360x2400 4PASS", 360, 2400, 4, 2},
               {"360x3600_6pass", "360x3600 6PASS", 360, 3600, 6, 2},
               {"720x1200_4pass", "720x1200 4PASS", 720, 1200, 4, 2},
               {"720x1800_6pass", "720x1800 6PASS", 720, 1800, 6, 2},
               {"720x2400_8pass", "720x2400 8PASS", 720, 2400, 8, 2},
           },
       .default_mode = 5,
       .default_map = {kK, kC, kM, kY, kW, kW},
       .stale_map = {},
       .extension = ".prt",
       .stride_alignment = 4,
       .pass_field = std::nullopt},
      {.head = PrintHead::i1600,
       .name = "i1600",
       .modes =
           {
               {"i1600_720x900_observed", "720x900 (observed 5-slot)", 720, 900, 6, 2},
               {"i1600_720x1200_observed", "720x1200 (observed 5-slot)", 720, 1200, 8, 2},
               {"i1600_720x1800_observed", "720x1800 (observed 5-slot)", 720, 1800, 12, 2},
           },
       .default_mode = 2,
       .default_map = {kK, kC, kM, kY, kW, kOff},
       .stale_map = {},
       .extension = ".prn",
       .stride_alignment = 4,
       .pass_field = 4},
      {.head = PrintHead::xp600,
       .name = "xp600",
       .modes =
           {
               {"xp600_360x360", "360x360 2PASS", 360, 360, 2, 2},
               {"xp600_360x540", "360x540 3PASS", 360, 540, 3, 2},
               {"xp600_360x720", "360x720 4PASS", 360, 720, 4, 2},
               {"xp600_360x1080", "360x1080 6PASS", 360, 1080, 6, 2},
               {"xp600_360x1440", "360x1440 8PASS", 360, 1440, 8, 2},
               {"xp600_360x2160", "360x2160 12PASS", 360, 2160, 12, 2},
               {"xp600_720x360", "720x360 4PASS", 720, 360, 4, 2},
               {"xp600_720x540", "720x540 6PASS", 720, 540, 6, 2},
               {"xp600_720x720", "720x720 8PASS (XP600 standard)", 720, 720, 8, 2},
               {"xp600_720x1080", "720x1080 12PASS", 720, 1080, 12, 2},
               {"xp600_720x1440", "720x1440 16PASS", 720, 1440, 16, 2},
               {"xp600_720x2160", "720x2160 24PASS", 720, 2160, 24, 2},
           },
       .default_mode = 8,
       .default_map = {kK, kC, kM, kY, kOff, kOff, kW},
       .stale_map = {kK, kC, kM, kY, kOff, kOff, kOff},
       .extension = ".prt",
       .stride_alignment = 8,
       .pass_field = 0},
  };
  return rows;
}

constexpr HeadConfig kLegacyHead = head_config(PrintHead::i3200);

}  // namespace

std::span<const HeadRow> print_heads() {
  return head_rows();
}

const HeadRow& print_head_row(HeadConfig head) {
  for (const HeadRow& row : head_rows())
    if (static_cast<std::uint32_t>(row.head) == head.print_head) return row;
  return head_rows().front();
}

std::optional<PrintHead> find_print_head(std::string_view name) {
  for (const HeadRow& row : head_rows())
    if (row.name == name) return row.head;
  return std::nullopt;
}

std::span<const PrintMode> print_modes_for(HeadConfig head) {
  return print_head_row(head).modes;
}

const PrintMode& default_print_mode(HeadConfig head) {
  const HeadRow& row = print_head_row(head);
  return row.modes[row.default_mode];
}

const PrintMode* find_print_mode(HeadConfig head, std::string_view id) {
  for (const PrintMode& mode : print_modes_for(head))
    if (mode.id == id) return &mode;
  return nullptr;
}

const PrintMode* find_legacy_print_mode(std::string_view id) {
  return find_print_mode(kLegacyHead, id);
}

const PrintMode& resolve_print_mode(HeadConfig head, const PrintMode& mode) {
  if (const PrintMode* row = find_print_mode(head, mode.id)) return *row;
  for (const PrintMode& row : print_modes_for(head))
    if (row.x_dpi == mode.x_dpi && row.y_dpi == mode.y_dpi && row.bit_depth == mode.bit_depth) return row;
  return default_print_mode(head);
}

PrintMode effective_print_mode(HeadConfig head, const PrintMode& mode, const ExplicitResolution& numbers) {
  PrintMode effective = resolve_print_mode(head, mode);
  if (effective.x_dpi == 0 || effective.y_dpi == 0 || effective.passes == 0)
    effective = default_print_mode(head);
  if (mode.id.empty() && numbers.x_dpi > 0 && numbers.y_dpi > 0) {
    effective.x_dpi = numbers.x_dpi;
    effective.y_dpi = numbers.y_dpi;
    if (numbers.passes != 0) effective.passes = numbers.passes;
    effective.id = "legacy_explicit_xy";
    effective.label = std::to_string(effective.x_dpi) + "x" + std::to_string(effective.y_dpi) + " " +
                      std::to_string(effective.passes) + "PASS";
  }
  if (effective.id.empty()) {
    for (const PrintMode& row : print_modes_for(kLegacyHead)) {
      if (row.x_dpi != effective.x_dpi || row.y_dpi != effective.y_dpi || row.passes != effective.passes)
        continue;
      effective.id = row.id;
      effective.label = row.label;
      break;
    }
  }
  effective.bit_depth = 2;
  return effective;
}

std::string_view print_head_name(HeadConfig head) {
  return print_head_row(head).name;
}

std::string_view channel_name(std::uint32_t code) {
  constexpr std::string_view kNames[] = {"C", "M", "Y", "K", "W"};
  return code < kChannelCount ? kNames[code] : "Off";
}

std::string channel_map_text(std::span<const std::uint32_t> map) {
  std::string text;
  for (const std::uint32_t code : map) text.append(text.empty() ? "" : " ").append(channel_name(code));
  return text;
}

std::uint32_t slot_count(HeadConfig head) {
  return static_cast<std::uint32_t>(print_head_row(head).default_map.size());
}

std::vector<std::uint32_t> default_channel_map(HeadConfig head) {
  return print_head_row(head).default_map;
}

std::vector<std::uint32_t> normalize_channel_map(HeadConfig head, const std::vector<std::uint32_t>& map) {
  const HeadRow& row = print_head_row(head);
  std::vector<std::uint32_t> slots = row.default_map;
  std::copy_n(map.begin(), std::min(map.size(), slots.size()), slots.begin());
  if (!slots.empty() && slots == row.stale_map) slots.back() = row.default_map.back();
  return slots;
}

std::string_view print_extension(HeadConfig head) {
  return print_head_row(head).extension;
}

}  // namespace nvo
