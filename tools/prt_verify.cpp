#include "tools/prt_verify.h"

#include <algorithm>
#include <cstdint>

#include "tools/prt_slots.h"

namespace nvo {
namespace {

constexpr std::uint64_t kNamedPlaces = 5;

void expect(std::uint32_t found, std::uint32_t allowed, const std::string& field,
            std::vector<std::string>& damage) {
  if (found != allowed)
    damage.push_back("header: " + field + " is " + std::to_string(found) + ", not " +
                     std::to_string(allowed));
}

void check_header(const PrtReader& reader, std::vector<std::string>& damage) {
  const PrtHeader& header = reader.header();
  const HeadConfig head = guess_head(header, reader.path());
  const PrtHeader written = make_prt_header(head, default_print_mode(head), header.width, header.height);
  if (header.x_dpi == 0) damage.push_back("header: x resolution is 0");
  if (header.y_dpi == 0) damage.push_back("header: y resolution is 0");
  expect(header.stride, written.stride, "stride", damage);
  for (std::size_t i = 0; i < header.reserved.size(); ++i)
    expect(header.reserved[i], 0, "reserved field " + std::to_string(i + 1), damage);
  if (print_head_row(head).pass_field)
    expect(header.pass_field, written.pass_field, "pass field", damage);
  else if (header.pass_field == 0)
    damage.push_back("header: pass field is 0");
}

bool padding_is_zero(const std::uint8_t* slot, const PrtHeader& header) {
  const std::uint32_t packed = packed_dots_bytes(header.width);
  const std::uint32_t last_dots = header.width % kDotsPerByte;
  if (last_dots != 0 && (slot[packed - 1] & (0xFFu >> (2 * last_dots))) != 0) return false;
  return std::all_of(slot + packed, slot + header.stride, [](std::uint8_t byte) { return byte == 0; });
}

void check_padding(PrtReader& reader, std::vector<std::string>& damage) {
  const PrtHeader& header = reader.header();
  std::uint64_t places = 0;
  reader.for_each_cycle([&](std::uint32_t cycle, const std::uint8_t* bytes) {
    for (std::uint32_t slot = 0; slot < header.channels; ++slot) {
      if (padding_is_zero(bytes + std::size_t{slot} * header.stride, header)) continue;
      if (++places <= kNamedPlaces)
        damage.push_back("row " + std::to_string(header.height - 1 - cycle) + " from the top, slot " +
                         std::to_string(slot + 1) + ": bits behind the last dot are set");
    }
  });
  if (places > kNamedPlaces)
    damage.push_back("and " + std::to_string(places - kNamedPlaces) + " more rows of a slot with such bits");
}

}  // namespace

std::vector<std::string> find_damage(PrtReader& reader) {
  std::vector<std::string> damage;
  check_header(reader, damage);
  check_padding(reader, damage);
  return damage;
}

}  // namespace nvo
