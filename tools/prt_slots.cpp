#include "tools/prt_slots.h"

#include <algorithm>
#include <stdexcept>

#include "core/text.h"

namespace nvo {
namespace {

constexpr std::string_view kInkLetters = "CMYKW-";  // by channel code
constexpr std::string_view kHeadNames[] = {"i3200", "i1600", "xp600"};

constexpr HeadConfig head_config(PrintHead head) {
  return {0, static_cast<std::uint32_t>(head)};
}

bool fits(HeadConfig head, const PrtHeader& header) {
  return find_mode(head, header) != nullptr;
}

std::uint32_t parse_letter(char letter, std::string_view whole) {
  const char upper = letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
  const std::size_t code = kInkLetters.find(upper);
  if (code == std::string_view::npos)
    throw std::invalid_argument("'" + std::string(1, letter) + "' in '" + std::string(whole) + "' is no ink");
  return static_cast<std::uint32_t>(code);
}

}  // namespace

HeadConfig guess_head(const PrtHeader& header, std::string_view path) {
  if (header.channels == slot_count(head_config(PrintHead::xp600))) return head_config(PrintHead::xp600);
  const HeadConfig i3200 = head_config(PrintHead::i3200), i1600 = head_config(PrintHead::i1600);
  if (fits(i3200, header) != fits(i1600, header)) return fits(i3200, header) ? i3200 : i1600;
  return lower_extension(path) == print_extension(i1600).substr(1) ? i1600 : i3200;
}

std::string_view head_name(HeadConfig head) {
  return kHeadNames[head.print_head];
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
