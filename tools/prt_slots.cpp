#include "tools/prt_slots.h"

#include <algorithm>
#include <stdexcept>

#include "core/text.h"

namespace nvo {
namespace {

constexpr std::string_view kInkLetters = "CMYKW-";  // by channel code

std::uint32_t parse_letter(char letter, std::string_view whole) {
  const char upper = letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
  const std::size_t code = kInkLetters.find(upper);
  if (code == std::string_view::npos)
    throw std::invalid_argument("'" + std::string(1, letter) + "' in '" + std::string(whole) + "' is no ink");
  return static_cast<std::uint32_t>(code);
}

}  // namespace

HeadConfig guess_head(const PrtHeader& header, std::string_view path) {
  const std::string extension = "." + lower_extension(path);
  // Of heads with as many slots, a mode that the header names counts more than the name of the file.
  HeadConfig guess;
  int best = -1;
  for (const HeadRow& row : print_heads()) {
    if (row.default_map.size() != header.channels) continue;
    const HeadConfig head = head_config(row.head);
    const int score = (find_mode(head, header) ? 2 : 0) + (row.extension == extension ? 1 : 0);
    if (score <= best) continue;
    best = score;
    guess = head;
  }
  return guess;
}

const PrintMode* find_mode(HeadConfig head, const PrtHeader& header) {
  for (const PrintMode& mode : print_modes_for(head))
    if (make_prt_header(head, mode, 1, 1).pass_field == header.pass_field && mode.x_dpi == header.x_dpi &&
        mode.y_dpi == header.y_dpi)
      return &mode;
  return nullptr;
}

char ink_letter(std::uint32_t code) {
  return kInkLetters[std::min<std::size_t>(code, kChannelOff)];
}

std::uint32_t parse_ink(std::string_view letter) {
  if (letter.size() != 1 || letter == "-")
    throw std::invalid_argument("'" + std::string(letter) + "' is not one of the inks C, M, Y, K, W");
  return parse_letter(letter[0], letter);
}

std::vector<std::uint32_t> parse_slot_map(std::string_view letters, std::uint32_t slots) {
  std::vector<std::uint32_t> codes;
  for (const char letter : letters) codes.push_back(parse_letter(letter, letters));
  if (codes.size() != slots)
    throw std::invalid_argument("'" + std::string(letters) + "' names " + std::to_string(codes.size()) +
                                " slots, the file has " + std::to_string(slots));
  return codes;
}

}  // namespace nvo
