#include "image/tiff_predictor.h"

#include <array>
#include <cstring>
#include <utility>

namespace nvo {
namespace {

constexpr std::size_t kLanes = sizeof(std::uint64_t);

/// Eight byte sums at once, none carrying into its neighbour.
std::uint64_t add_bytes(std::uint64_t a, std::uint64_t b) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  return ((a & ~kHighBits) + (b & ~kHighBits)) ^ ((a ^ b) & kHighBits);
}

/// The samples of a pixel share a word; what a load brings along from the next pixel is never stored.
template <std::size_t samples>
void add_up(const std::uint8_t* from, std::uint8_t* to, std::size_t pixels) {
  std::uint64_t sum = 0, differences = 0;
  std::size_t left = pixels * samples;
  for (; left >= kLanes; left -= samples, from += samples, to += samples) {
    std::memcpy(&differences, from, kLanes);
    sum = add_bytes(sum, differences);
    std::memcpy(to, &sum, samples);
  }
  for (; left > 0; left -= samples, from += samples, to += samples) {
    std::memcpy(&differences, from, samples);
    sum = add_bytes(sum, differences);
    std::memcpy(to, &sum, samples);
  }
}

using AddUp = void (*)(const std::uint8_t*, std::uint8_t*, std::size_t);

template <std::size_t... counts>
constexpr std::array<AddUp, sizeof...(counts)> table(std::index_sequence<counts...>) {
  return {add_up<counts + 1>...};
}
constexpr auto kAddUp = table(std::make_index_sequence<kLanes>());

}  // namespace

bool can_add_up(std::size_t samples_per_pixel) {
  return samples_per_pixel >= 1 && samples_per_pixel <= kAddUp.size();
}

void add_up_row(const std::uint8_t* from, std::uint8_t* to, std::size_t pixels,
                std::size_t samples_per_pixel) {
  kAddUp[samples_per_pixel - 1](from, to, pixels);
}

}  // namespace nvo
