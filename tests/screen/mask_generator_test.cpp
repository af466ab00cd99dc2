#include "screen/mask_generator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/fnv1a.h"
#include "support/failure.h"
#include "support/log_capture.h"

namespace nvo {
namespace {

using test::failure_of;

/// Void-and-cluster as the textbook has it: every placement scans the whole tile.
class PlainGenerator {
 public:
  PlainGenerator(int w, int h, float sigma) : w_(w), h_(h), sigma_(sigma), dot_(w * h), energy_(w * h) {}

  std::vector<std::uint8_t> run(std::uint64_t x) {
    const int pixels = w_ * h_, dots = std::max(pixels / 10, 1);
    for (int set = 0; set < dots;) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      const auto i = static_cast<int>(x % static_cast<std::uint64_t>(pixels));
      if (!dot_[i]) ++set, put(i, true);
    }
    for (int from = -1, to = 0; from != to;) {
      put(from = extreme(true), false);
      put(to = extreme(false), true);
    }
    std::vector<std::uint8_t> bytes(dot_.size());
    const auto rank_next = [&](bool dot, int rank) {
      const int i = extreme(dot);
      bytes[i] = static_cast<std::uint8_t>(rank * 255 / (pixels - 1));
      put(i, !dot);
    };
    const PlainGenerator relaxed = *this;
    for (int rank = dots - 1; rank >= 0; --rank) rank_next(true, rank);
    *this = relaxed;
    for (int rank = dots; rank < pixels; ++rank) rank_next(false, rank);
    return bytes;
  }

 private:
  /// The first dot of the highest energy, or the first void of the lowest.
  int extreme(bool dot) const {
    int best = 0;
    while (dot_[best] != dot) ++best;
    for (int i = best + 1; i < w_ * h_; ++i)
      if (dot_[i] == dot && (dot ? energy_[i] > energy_[best] : energy_[i] < energy_[best])) best = i;
    return best;
  }

  void put(int index, bool dot) {
    dot_[index] = dot;
    const int radius = std::max(static_cast<int>(std::ceil(sigma_ * 3)), 1);
    for (int dy = -radius; dy <= radius; ++dy) {
      for (int dx = -radius; dx <= radius; ++dx) {
        const float weight = expf(-static_cast<float>(dx * dx + dy * dy) / ((sigma_ + sigma_) * sigma_));
        const int y = ((index / w_ + dy) % h_ + h_) % h_, x = ((index % w_ + dx) % w_ + w_) % w_;
        energy_[y * w_ + x] += dot ? weight : -weight;
      }
    }
  }

  int w_, h_;
  float sigma_;
  std::vector<std::uint8_t> dot_;
  std::vector<float> energy_;
};

TEST(MaskGenerator, GivesTheBytesOfFullScans) {
  const struct {
    int w, h;
    float sigma;
  } cases[] = {{3, 3, 1.0f},    {10, 12, 3.0f}, {10, 16, 4.0f}, {2, 1, 1.5f},    {1, 2, 0.5f},
               {1, 64, 1.5f},   {64, 1, 1.0f},  {7, 5, 0.4f},   {16, 8, 1.5f},   {17, 9, 1.5f},
               {15, 40, 4.0f},  {37, 53, 2.0f}, {53, 37, 8.0f}, {64, 64, 0.01f}, {96, 40, 1.5f},
               {300, 17, 1.5f}, {11, 11, 1.5f}, {33, 300, 1.0f}};
  int index = 0;
  for (const auto& c : cases) {
    const std::uint64_t seed = mask_seed(index++ % 6);
    std::vector<std::uint8_t> mask(static_cast<std::size_t>(c.w * c.h));
    generate_mask(mask.data(), c.w, c.h, seed, c.sigma);
    EXPECT_TRUE(mask == PlainGenerator(c.w, c.h, c.sigma).run(seed)) << c.w << "x" << c.h << " " << c.sigma;
  }
}

TEST(MaskGenerator, DefaultSetNeverChanges) {
  const test::LogCapture log;
  const auto masks = generate_all_masks({});
  EXPECT_EQ(masks.size(), 6u << 20);
  EXPECT_EQ(fnv1a(masks.data(), masks.size()), 0xBC20D3E320440649ULL);
  EXPECT_EQ(mask_seed(46341), 0xF6F1B6180B883CA5ULL) << "whose square is negative in 32 bits";
}

TEST(MaskGenerator, RejectsBadArguments) {
  std::uint8_t out[4] = {};
  const auto message = [](std::uint8_t* mask, int w, int h, float sigma) {
    return failure_of([&] { generate_mask(mask, w, h, 1, sigma); });
  };
  const std::string bad = "MaskCache: invalid V&C generation parameters";
  const std::string size = "MaskCache: V&C tile size is out of supported range";
  EXPECT_EQ(message(nullptr, 2, 2, 1.5f), bad);
  EXPECT_EQ(message(out, 0, 2, 1.5f), bad);
  EXPECT_EQ(message(out, 2, -1, 1.5f), bad);
  for (const float sigma : {NAN, INFINITY, 0.0f, -1.0f, 64.5f, 1e-30f})
    EXPECT_EQ(message(out, 2, 2, sigma), bad) << sigma;
  EXPECT_EQ(message(out, 1, 1, 1.5f), size);
  EXPECT_EQ(message(out, 0x7FFFFFFF, 2, 1.5f), size);
  EXPECT_EQ(message(out, 2, 1, 64.0f), "");
}

}  // namespace
}  // namespace nvo
