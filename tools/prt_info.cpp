#include "tools/prt_info.h"

#include <cstring>
#include <iomanip>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include "tools/prt_slots.h"

namespace nvo {
namespace {

constexpr double kMillimetresPerInch = 25.4;
constexpr double kPercent = 100.0;

/// Counts packed bytes by value; their dots are told apart only at the end.
class ByteHistogram {
 public:
  void add_row(const std::uint8_t* packed, std::uint32_t width) {
    const std::uint32_t whole = width / kDotsPerByte;
    std::uint32_t i = 0;
    for (; i + 8 <= whole; i += 8) {
      std::uint64_t word;
      std::memcpy(&word, packed + i, sizeof word);
      if (word == 0) continue;  // level 0 follows from the others
      // Two tables: equal neighbours would wait for each other's sum.
      for (std::uint32_t k = 0; k < 8; ++k) ++counts_[k % 2][packed[i + k]];
    }
    for (; i < whole; ++i) ++counts_[0][packed[i]];
    if (const std::uint32_t rest = width % kDotsPerByte; rest != 0)
      ++counts_[0][packed[whole] & (0xFFu << (8 - 2 * rest))];
  }

  LevelCounts levels(std::uint64_t dots) const {
    LevelCounts levels{};
    for (std::size_t byte = 0; byte < 256; ++byte)
      for (unsigned shift = 0; shift < 8; shift += 2)
        levels[byte >> shift & 3] += counts_[0][byte] + counts_[1][byte];
    levels[0] = dots - levels[1] - levels[2] - levels[3];
    return levels;
  }

 private:
  std::array<std::array<std::uint64_t, 256>, 2> counts_{};
};

std::uint64_t printed_dots(const LevelCounts& levels) {
  return levels[1] + levels[2] + levels[3];
}

double printed_share(const PrtInfo& info, const LevelCounts& levels) {
  return static_cast<double>(printed_dots(levels)) /
         (static_cast<double>(info.header.width) * static_cast<double>(info.header.height));
}

/// Inches of a number of dots; 0 where the header names no resolution.
double inches(std::uint32_t dots, std::uint32_t dpi) {
  return dpi == 0 ? 0 : static_cast<double>(dots) / static_cast<double>(dpi);
}

std::string mode_id(const PrtInfo& info) {
  const PrintMode* mode = find_mode(info.head, info.header);
  return mode ? mode->id : "unknown";
}

}  // namespace

PrtInfo collect_info(PrtReader& reader, std::vector<std::uint32_t> slot_map) {
  const PrtHeader& header = reader.header();
  std::vector<ByteHistogram> histograms(header.channels);
  reader.for_each_cycle([&](std::uint32_t, const std::uint8_t* cycle) {
    for (std::size_t slot = 0; slot < histograms.size(); ++slot)
      histograms[slot].add_row(cycle + slot * header.stride, header.width);
  });

  PrtInfo info{reader.path(), header, guess_head(header, reader.path()), std::move(slot_map), {}};
  for (const ByteHistogram& histogram : histograms)
    info.slots.push_back(histogram.levels(std::uint64_t{header.width} * header.height));
  return info;
}

std::string info_text(const PrtInfo& info) {
  const PrtHeader& header = info.header;
  const double width_in = inches(header.width, header.x_dpi), height_in = inches(header.height, header.y_dpi);
  std::ostringstream text;
  text << std::fixed << std::setprecision(3);
  text << "File        " << info.path << ", " << prt_file_size(header) << " bytes\n"
       << "Head        " << print_head_name(info.head) << ", mode " << mode_id(info) << '\n'
       << "Resolution  " << header.x_dpi << " x " << header.y_dpi << " dpi, pass field " << header.pass_field
       << '\n'
       << "Dots        " << header.width << " x " << header.height << '\n'
       << "Size        " << width_in << " x " << height_in << " in, " << std::setprecision(1)
       << width_in * kMillimetresPerInch << " x " << height_in * kMillimetresPerInch << " mm\n"
       << "Row         " << header.channels << " slots of " << header.stride << " bytes, "
       << prt_cycle_len(header) << " bytes together\n\n"
       << "Slot  Ink   Printed         Level 0         Level 1         Level 2         Level 3\n"
       << std::setprecision(2);
  for (std::size_t slot = 0; slot < info.slots.size(); ++slot) {
    text << std::setw(4) << slot + 1 << "  " << ink_letter(info.slot_map[slot]) << std::setw(10)
         << kPercent * printed_share(info, info.slots[slot]) << " %";
    for (const std::uint64_t count : info.slots[slot]) text << std::setw(16) << count;
    text << '\n';
  }
  return text.str();
}

std::string info_json(const PrtInfo& info) {
  const PrtHeader& header = info.header;
  const double width_in = inches(header.width, header.x_dpi), height_in = inches(header.height, header.y_dpi);
  nlohmann::ordered_json json = {
      {"file", info.path},
      {"file_bytes", prt_file_size(header)},
      {"head", print_head_name(info.head)},
      {"print_mode_id", mode_id(info)},
      {"x_dpi", header.x_dpi},
      {"y_dpi", header.y_dpi},
      {"pass_field", header.pass_field},
      {"width_dots", header.width},
      {"height_dots", header.height},
      {"width_in", width_in},
      {"height_in", height_in},
      {"width_mm", width_in * kMillimetresPerInch},
      {"height_mm", height_in * kMillimetresPerInch},
      {"stride_bytes", header.stride},
      {"row_bytes", prt_cycle_len(header)},
      {"slots", nlohmann::ordered_json::array()},
  };
  for (std::size_t slot = 0; slot < info.slots.size(); ++slot)
    json["slots"].push_back({{"ink", std::string(1, ink_letter(info.slot_map[slot]))},
                             {"printed_share", printed_share(info, info.slots[slot])},
                             {"dots_by_level", info.slots[slot]}});
  // A file name may hold any bytes; those that are no UTF-8 are replaced.
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace nvo
