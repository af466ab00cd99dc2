#include "screen/row_screener.h"

#include <algorithm>
#include <cstring>

#include "screen/packed_dots.h"

namespace nvo {

RowScreener::RowScreener(const StripScreening& strip, RowBuffers& buffers)
    : strip_(strip), buffers_(buffers) {
  if (strip.sampling.area() && strip.sampling.taps->pairs.usable())
    pairs_.emplace(strip.sampling, buffers);
  else
    rows_.emplace(strip.sampling, buffers);
  if (strip.colour_choke != nullptr && !strip.colour_choke->ring.empty())
    ring_.emplace(strip.colour_choke->ring, strip.sampling, buffers);
}

/// The choke acts on the dots: a value that it sets to 0 gives level 0, and only the dots of the ring need
/// the value of another dot.
bool RowScreener::screen(std::size_t y, std::uint8_t* dots) {
  const CodeRow ring = ring_codes(y);
  const CodeRow row = codes(y);
  if (row.blank && ring.blank) return false;
  const std::uint8_t* mask = mask_row(strip_, y);
  if (row.blank) {
    std::memset(dots, 0, strip_.sampling.dev_w);
  } else {
    screen_codes(strip_, row, mask, dots);
    keep_dots(kept(y), dots);
  }
  if (!ring.blank) add_ring(y, ring, mask, dots);
  return true;
}

bool RowScreener::screen_packed(std::size_t y, std::uint8_t* out) {
  if (strip_.no_mask.size() % kScreenBlock != 0) {  // a block of dots would need the masks of two tiles
    buffers_.dots.resize(strip_.sampling.dev_w);
    if (!screen(y, buffers_.dots.data())) return false;
    pack_row(buffers_.dots.data(), strip_.sampling.dev_w, out);
    return true;
  }
  const CodeRow ring = ring_codes(y);
  const CodeRow row = codes(y);
  if (row.blank && ring.blank) return false;
  const std::uint8_t* mask = mask_row(strip_, y);
  if (row.blank) std::memset(out, 0, packed_dots_bytes(strip_.sampling.dev_w));
  if (!row.blank) screen_codes_packed(row, mask, kept(y), out);
  if (!ring.blank) add_ring_packed(y, ring, mask, out);
  return true;
}

void RowScreener::screen_codes_packed(const CodeRow& codes, const std::uint8_t* mask, const Kept& kept,
                                      std::uint8_t* out) const {
  const std::size_t width = strip_.sampling.dev_w, tile = strip_.no_mask.size();
  const auto from = [](const std::uint64_t* bits, std::size_t x) { return bits ? bits + x / 64 : nullptr; };
  for (std::size_t x = 0; x < width; x += tile)
    strip_.sampling.kernels->screen_packed(codes.base + x, codes.threshold + x, mask, from(kept.row, x),
                                           from(kept.also, x), std::min(tile, width - x),
                                           out + x / kDotsPerByte);
}

CodeRow RowScreener::codes(std::size_t y) {
  if (!ring_) return sampled(y);
  return ring_->hold(y, [this](std::size_t row) { return sampled(row); });
}

CodeRow RowScreener::sampled(std::size_t y) {
  return pairs_ ? pairs_->codes(y) : rows_->codes(y);
}

CodeRow RowScreener::ring_codes(std::size_t y) {
  if (!ring_) return {};
  return ring_->codes(y, [this](std::size_t row) { return sampled(row); });
}

RowScreener::Kept RowScreener::kept(std::size_t y) const {
  if (strip_.white_choke != nullptr) {
    const std::uint64_t* keep = strip_.white_choke->keep.row(y);
    return {keep, keep};
  }
  if (strip_.colour_choke == nullptr) return {};
  return {strip_.colour_choke->grown.row(y), strip_.colour_choke->colour_core.row(y)};
}

void RowScreener::keep_dots(const Kept& kept, std::uint8_t* dots) {
  if (kept.row == nullptr) return;
  const std::size_t width = strip_.sampling.dev_w;
  buffers_.kept.resize((width + 63) / 64);
  for (std::size_t i = 0; i < buffers_.kept.size(); ++i) buffers_.kept[i] = kept.row[i] & kept.also[i];
  strip_.sampling.kernels->keep_dots(buffers_.kept.data(), width, dots);
}

void RowScreener::add_ring(std::size_t y, const CodeRow& ring, const std::uint8_t* mask, std::uint8_t* dots) {
  const std::size_t width = strip_.sampling.dev_w;
  const std::uint64_t* grown = strip_.colour_choke->grown.row(y);
  const std::uint64_t* core = strip_.colour_choke->colour_core.row(y);
  buffers_.ring_dots.resize(width);
  screen_codes(strip_, ring, mask, buffers_.ring_dots.data());
  for (std::size_t x = 0; x < width; ++x)
    if ((grown[x / 64] & ~core[x / 64]) >> (x % 64) & 1u) dots[x] = buffers_.ring_dots[x];
}

void RowScreener::add_ring_packed(std::size_t y, const CodeRow& ring, const std::uint8_t* mask,
                                  std::uint8_t* out) const {
  const std::size_t width = strip_.sampling.dev_w, tile = strip_.no_mask.size();
  const std::uint64_t* grown = strip_.colour_choke->grown.row(y);
  const std::uint64_t* core = strip_.colour_choke->colour_core.row(y);
  for (std::size_t x = 0; x < width; x += tile)
    strip_.sampling.kernels->add_packed(ring.base + x, ring.threshold + x, mask, grown + x / 64,
                                        core + x / 64, std::min(tile, width - x), out + x / kDotsPerByte);
}

const std::uint8_t* mask_row(const StripScreening& strip, std::size_t y) {
  const std::uint8_t* row = strip.masks->row(strip.channel, strip.first_device_row + std::uint64_t{y});
  return row != nullptr ? row : strip.no_mask.data();
}

void screen_codes(const StripScreening& strip, const CodeRow& codes, const std::uint8_t* mask,
                  std::uint8_t* dots) {
  const std::size_t width = strip.sampling.dev_w, tile = strip.no_mask.size();
  for (std::size_t x = 0; x < width; x += tile)
    strip.sampling.kernels->screen_row(codes.base + x, codes.threshold + x, mask, std::min(tile, width - x),
                                       dots + x);
}

}  // namespace nvo
