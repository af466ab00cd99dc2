#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/print_modes.h"
#include "output/prt_format.h"

namespace nvo {

/// The head that a file seems to be for, by the number of slots. Where several heads have as many, it is the
/// first one with a mode that the header names, or else that has the file's extension.
HeadConfig guess_head(const PrtHeader& header, std::string_view path);

/// The catalog row that the header names, or null.
const PrintMode* find_mode(HeadConfig head, const PrtHeader& header);

/// "C", "M", "Y", "K", "W", or "-" for a slot that stays empty.
char ink_letter(std::uint32_t code);

/// The channel code of an ink's letter, of either case. Throws `invalid_argument` for any other text.
std::uint32_t parse_ink(std::string_view letter);

/// One channel code for each letter of `letters`. Throws `invalid_argument` unless there are `slots` of them.
std::vector<std::uint32_t> parse_slot_map(std::string_view letters, std::uint32_t slots);

}  // namespace nvo
