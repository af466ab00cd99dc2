#include "output/prt_format.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

#include "core/checked.h"

namespace nvo {
namespace {

// Positions of the header's fields, in units of four bytes.
enum HeaderField : std::size_t {
  kFieldMagic,
  kFieldXDpi,
  kFieldYDpi,
  kFieldStride,
  kFieldHeight,
  kFieldWidth,
  kFieldReserved0,
  kFieldChannels,
  kFieldBitsPerDot,
  kFieldPass,
  kFieldReserved1,
  kFieldReserved2,
  kFieldCount
};
static_assert(kFieldCount * sizeof(std::uint32_t) == kPrtHeaderSize);

using DotsOfByte = std::array<std::array<std::uint8_t, kDotsPerByte>, 256>;

constexpr DotsOfByte make_dots_of_byte() {
  DotsOfByte table{};
  for (unsigned byte = 0; byte < table.size(); ++byte)
    for (unsigned dot = 0; dot < kDotsPerByte; ++dot)
      table[byte][dot] = static_cast<std::uint8_t>(byte >> (6 - 2 * dot) & 3u);
  return table;
}

constexpr DotsOfByte kDotsOfByte = make_dots_of_byte();

/// The slot counts of all heads, in ascending order.
std::set<std::size_t> slot_counts() {
  std::set<std::size_t> counts;
  for (const HeadRow& row : print_heads()) counts.insert(row.default_map.size());
  return counts;
}

/// As "6 or 7".
std::string text_of(const std::set<std::size_t>& counts) {
  std::string text;
  for (const std::size_t count : counts) text.append(text.empty() ? "" : " or ") += std::to_string(count);
  return text;
}

std::string hex(std::uint32_t value) {
  char text[11];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}

void require(bool holds, const char* field, std::uint64_t found, const std::string& allowed) {
  if (!holds)
    throw std::runtime_error(std::string(field) + " is " + std::to_string(found) + ", not " + allowed);
}

}  // namespace

PrtRowLayout prt_row_layout(HeadConfig head, std::uint32_t width) {
  const std::uint64_t alignment = print_head_row(head).stride_alignment;
  const std::uint64_t stride = (packed_dots_bytes(width) + alignment - 1) / alignment * alignment;
  if (stride > kMaxU32) throw std::overflow_error("HosonWriter stride alignment overflow");
  const std::uint64_t cycle_len = stride * slot_count(head);
  if (cycle_len > kMaxU32) throw std::overflow_error("HosonWriter stride cycle_len overflow");
  return {static_cast<std::uint32_t>(stride), static_cast<std::uint32_t>(cycle_len)};
}

PrtHeader make_prt_header(HeadConfig head, const PrintMode& mode, std::uint32_t width, std::uint32_t height) {
  const PrintMode& row = resolve_print_mode(head, mode);
  PrtHeader header;
  header.x_dpi = row.x_dpi;
  header.y_dpi = row.y_dpi;
  header.stride = prt_row_layout(head, width).stride;
  header.height = height;
  header.width = width;
  header.channels = slot_count(head);
  header.pass_field = print_head_row(head).pass_field.value_or(row.passes);
  return header;
}

std::array<std::uint8_t, kPrtHeaderSize> encode_prt_header(const PrtHeader& header) {
  std::array<std::uint32_t, kFieldCount> fields{};
  fields[kFieldMagic] = kPrtMagic;
  fields[kFieldXDpi] = header.x_dpi;
  fields[kFieldYDpi] = header.y_dpi;
  fields[kFieldStride] = header.stride;
  fields[kFieldHeight] = header.height;
  fields[kFieldWidth] = header.width;
  fields[kFieldReserved0] = header.reserved[0];
  fields[kFieldChannels] = header.channels;
  fields[kFieldBitsPerDot] = kPrtBitsPerDot;
  fields[kFieldPass] = header.pass_field;
  fields[kFieldReserved1] = header.reserved[1];
  fields[kFieldReserved2] = header.reserved[2];

  std::array<std::uint8_t, kPrtHeaderSize> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<std::uint8_t>(fields[i / 4] >> (8 * (i % 4)));
  return bytes;
}

PrtHeader decode_prt_header(std::span<const std::uint8_t, kPrtHeaderSize> bytes) {
  std::array<std::uint32_t, kFieldCount> fields{};
  for (std::size_t i = 0; i < bytes.size(); ++i) fields[i / 4] |= std::uint32_t{bytes[i]} << (8 * (i % 4));

  if (fields[kFieldMagic] != kPrtMagic)
    throw std::runtime_error("magic is " + hex(fields[kFieldMagic]) + ", not " + hex(kPrtMagic));
  require(fields[kFieldBitsPerDot] == kPrtBitsPerDot, "bits per dot", fields[kFieldBitsPerDot],
          std::to_string(kPrtBitsPerDot));
  PrtHeader header;
  header.x_dpi = fields[kFieldXDpi];
  header.y_dpi = fields[kFieldYDpi];
  header.stride = fields[kFieldStride];
  header.height = fields[kFieldHeight];
  header.width = fields[kFieldWidth];
  header.channels = fields[kFieldChannels];
  header.pass_field = fields[kFieldPass];
  header.reserved = {fields[kFieldReserved0], fields[kFieldReserved1], fields[kFieldReserved2]};

  const std::set<std::size_t> slots = slot_counts();
  require(slots.contains(header.channels), "channels", header.channels, text_of(slots));
  require(header.width != 0, "width", header.width, "above 0");
  require(header.height != 0, "height", header.height, "above 0");
  const std::uint32_t least = packed_dots_bytes(header.width);
  require(header.stride >= least, "stride", header.stride, "at least " + std::to_string(least));
  require(prt_cycle_len(header) <= kMaxU32, "row cycle", prt_cycle_len(header), "below 4 GiB");
  return header;
}

std::uint64_t prt_cycle_len(const PrtHeader& header) {
  return std::uint64_t{header.stride} * header.channels;
}

std::uint64_t prt_file_size(const PrtHeader& header) {
  return kPrtHeaderSize + prt_cycle_len(header) * header.height;
}

void unpack_row(const std::uint8_t* packed, std::uint32_t width, std::uint8_t* dots) {
  const std::uint32_t whole = width / kDotsPerByte;
  for (std::uint32_t i = 0; i < whole; ++i)
    std::memcpy(dots + std::size_t{i} * kDotsPerByte, kDotsOfByte[packed[i]].data(), kDotsPerByte);
  if (const std::uint32_t rest = width % kDotsPerByte; rest != 0)
    std::memcpy(dots + std::size_t{whole} * kDotsPerByte, kDotsOfByte[packed[whole]].data(), rest);
}

}  // namespace nvo
