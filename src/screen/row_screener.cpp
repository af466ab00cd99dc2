#include "screen/row_screener.h"

#include <algorithm>
#include <cstring>

namespace nvo {

RowScreener::RowScreener(const StripScreening& strip, RowBuffers& buffers)
    : strip_(strip), buffers_(buffers), rows_(strip.sampling, buffers) {
  if (strip.colour_choke != nullptr && !strip.colour_choke->ring.empty())
    ring_.emplace(strip.sampling, buffers.memo);
}

/// The choke acts on the dots: a value that it sets to 0 gives level 0, and only the dots of the ring need
/// the value of another dot.
bool RowScreener::screen(std::size_t y, std::uint8_t* dots) {
  const std::size_t width = strip_.sampling.dev_w;
  const std::uint8_t* mask = mask_row(strip_, y);
  const CodeRow codes = rows_.codes(y);
  const bool has_ring = ring_ && !strip_.colour_choke->ring_of_row(y).empty();
  if (codes.blank && !has_ring) return false;
  if (codes.blank) {
    std::memset(dots, 0, width);
  } else {
    screen_codes(strip_, codes, mask, dots);
    if (const std::uint64_t* kept = kept_dots(y)) strip_.sampling.kernels->keep_dots(kept, width, dots);
  }
  if (has_ring) add_ring(y, mask, dots);
  return true;
}

/// The dots that stay as sampled; null for all. Ring dots are not among them.
const std::uint64_t* RowScreener::kept_dots(std::size_t y) {
  if (strip_.white_choke != nullptr) return strip_.white_choke->keep.row(y);
  if (strip_.colour_choke == nullptr) return nullptr;
  const std::uint64_t* grown = strip_.colour_choke->grown.row(y);
  const std::uint64_t* core = strip_.colour_choke->colour_core.row(y);
  buffers_.kept.resize(strip_.colour_choke->grown.words_per_row);
  for (std::size_t i = 0; i < buffers_.kept.size(); ++i) buffers_.kept[i] = grown[i] & core[i];
  return buffers_.kept.data();
}

void RowScreener::add_ring(std::size_t y, const std::uint8_t* mask, std::uint8_t* dots) {
  const ChokeContext& choke = *strip_.colour_choke;
  const auto tile = static_cast<std::uint32_t>(strip_.no_mask.size());
  std::uint32_t tile_x = 0;
  for (const RingDot& dot : choke.ring_of_row(y)) {
    if (!choke.grown.test(dot.x, y) || choke.colour_core.test(dot.x, y)) continue;
    if (dot.x - tile_x >= tile) tile_x = dot.x - dot.x % tile;
    dots[dot.x] = drop_level(ring_->code(dot.source_x, dot.source_y), mask[dot.x - tile_x]);
  }
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
