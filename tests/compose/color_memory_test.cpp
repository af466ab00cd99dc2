#include "compose/color_memory.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace nvo {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// What a transform does, seen from outside: an answer of the pixel alone. Counts what it is asked.
template <std::size_t kBytes>
struct MixColours {
  std::size_t* asked;

  void operator()(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) const {
    *asked += pixels;
    for (std::size_t i = 0; i < pixels; ++i, src += kBytes)
      for (std::size_t ink = 0; ink < 4; ++ink)
        *dst++ = static_cast<std::uint8_t>(src[ink % kBytes] * 31 + src[(ink + 1) % kBytes] * 7 + ink);
  }
};

/// `distinct` random colours, each in runs of `run` pixels, one series after the other.
template <std::size_t kBytes>
Bytes art(std::size_t distinct, std::size_t run, std::size_t series) {
  std::minstd_rand random(static_cast<unsigned>(distinct + run));
  Bytes pixels;
  for (std::size_t colour = 0; colour < distinct; ++colour) {
    std::uint8_t value[kBytes];
    for (std::uint8_t& byte : value) byte = static_cast<std::uint8_t>(random() >> 8);
    for (std::size_t i = 0; i < run; ++i) pixels.insert(pixels.end(), value, value + kBytes);
  }
  const Bytes once = pixels;
  while (--series > 0) pixels.insert(pixels.end(), once.begin(), once.end());
  return pixels;
}

template <std::size_t kBytes>
void expect_remembered() {
  ColorMemory memory;
  const struct {
    std::size_t distinct, run, series;
    std::size_t most_asked;  ///< of a thousand pixels
  } cases[] = {
      {1, 200'000, 1, 1},    {500, 40, 3, 30},   {5'000, 1, 40, 120},
      {300'000, 1, 1, 1000}, {900, 3, 100, 600},  // noise before it has put it off for a while
  };
  for (const auto& [distinct, run, series, most_asked] : cases) {
    const Bytes src = art<kBytes>(distinct, run, series);
    const std::size_t pixels = src.size() / kBytes;
    Bytes plain(pixels * 4), dst(plain.size());
    std::size_t asked = 0;
    MixColours<kBytes>{&asked}(src.data(), plain.data(), pixels);
    asked = 0;
    for (std::size_t at = 0, row = 0; at < pixels; at += row) {
      row = std::min<std::size_t>(pixels - at, 6601);
      memory.convert<kBytes>(&src[at * kBytes], &dst[at * 4], row, MixColours<kBytes>{&asked});
    }
    EXPECT_EQ(dst, plain) << distinct << " colours, runs of " << run;
    EXPECT_LE(asked, most_asked * pixels / 1000 + 1) << distinct << " colours, runs of " << run;
  }
}

TEST(ColorMemory, GivesTheAnswersOfItsFunctionAndAsksForFewOfThemTwice) {
  expect_remembered<3>();
  expect_remembered<4>();
}

}  // namespace
}  // namespace nvo
