#include "screen/ring_screener.h"

namespace nvo {

RingScreener::RingScreener(const ColourRingRows& ring, const StripSampling& sampling, RowBuffers& buffers)
    : ring_(ring), table_(buffers.held), codes_(buffers.ring), held_(ring.code_rows) {
  const std::size_t table = std::size_t{ring.stride} * ring.code_rows;
  for (auto* codes : {&table_.base, &table_.threshold}) codes->resize(table);
  for (auto* codes : {&codes_.base, &codes_.threshold}) size_codes(sampling, *codes);
}

/// False for a row without ink.
bool RingScreener::store(const CodeRow& row, std::uint32_t place) {
  const std::size_t room = codes_.base.size();
  std::uint8_t *const base = table_.base.data() + place, *const threshold = table_.threshold.data() + place;
  if (row.blank) {
    std::fill_n(base, room, std::uint8_t{0});
    std::fill_n(threshold, room, std::uint8_t{0});
  } else {
    std::copy_n(row.base, room, base);
    std::copy_n(row.threshold, room, threshold);
  }
  return !row.blank;
}

void RingScreener::clear() {
  if (!any_) return;
  std::ranges::fill(codes_.base, std::uint8_t{0});
  std::ranges::fill(codes_.threshold, std::uint8_t{0});
  any_ = false;
}

void RingScreener::apply(std::size_t y) {
  any_ = true;
  const std::uint8_t *const from_base = table_.base.data(), *const from_threshold = table_.threshold.data();
  std::uint8_t *const base = codes_.base.data(), *const threshold = codes_.threshold.data();
  ring_.for_each_change(y, [=](std::size_t x, std::uint32_t place) {
    base[x] = from_base[place];
    threshold[x] = from_threshold[place];
  });
}

}  // namespace nvo
