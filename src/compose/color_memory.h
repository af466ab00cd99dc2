#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace nvo {

/// Converts pixels to CMYK by a slow function and remembers what colours came to. That is exact where a
/// pixel's answer depends on nothing but the pixel. Artwork repeats its colours, in flat areas, along a
/// gradient and from copy to copy; where they hardly repeat, as in noise, the function converts all pixels by
/// itself. For one thread.
class ColorMemory {
 public:
  static constexpr std::size_t kCmykBytes = 4;

  /// `convert_new(src, dst, pixels)` converts pixels of `kBytes` bytes, 3 or 4. One memory serves one such
  /// function.
  template <std::size_t kBytes, class ConvertNew>
  void convert(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels,
               const ConvertNew& convert_new) {
    if (known_.empty()) begin<kBytes>(convert_new);
    while (pixels != 0) {
      const std::size_t count = std::min(pixels, kBlockPixels);
      if (is_worth_it())
        convert_block<kBytes>(src, dst, count, convert_new);
      else
        convert_new(src, dst, count);
      src += count * kBytes;
      dst += count * kCmykBytes;
      pixels -= count;
    }
  }

 private:
  static constexpr std::size_t kBlockPixels = 1024;
  static constexpr unsigned kSlotBits = 16;
  /// A trial that was of no use is followed by blocks without the memory, by more of them each time.
  static constexpr std::uint32_t kTrialBlocks = 32, kLeastPause = 128, kMostPause = 1024;

  /// A colour and its answer, which share a word so that a slot is read at once.
  using Known = std::uint64_t;
  /// Pixels `begin` up to `end` of a block have a colour that isn't known.
  struct NewRun {
    std::uint32_t colour;
    std::uint16_t begin, end;
  };

  template <std::size_t kBytes>
  static std::uint32_t colour_at(const std::uint8_t* pixel) {
    if constexpr (kBytes == 3) {
      return pixel[0] | std::uint32_t{pixel[1]} << 8 | std::uint32_t{pixel[2]} << 16;
    } else {
      std::uint32_t colour;
      std::memcpy(&colour, pixel, sizeof colour);
      return colour;
    }
  }
  static std::size_t slot_of(std::uint32_t colour) { return colour * 0x9E3779B1u >> (32 - kSlotBits); }
  static Known known(std::uint32_t colour, const std::uint8_t* cmyk) {
    return colour | Known{colour_at<kCmykBytes>(cmyk)} << 32;
  }
  static void fill(std::uint8_t* dst, std::size_t begin, std::size_t end, std::uint32_t cmyk) {
    for (std::size_t i = begin; i < end; ++i) std::memcpy(dst + i * kCmykBytes, &cmyk, kCmykBytes);
  }

  /// No slot is ever empty: each begins with colour 0, whose answer is as true there as in its own slot.
  template <std::size_t kBytes, class ConvertNew>
  void begin(const ConvertNew& convert_new) {
    new_colours_ = {};
    convert_new(new_colours_.data(), answers_.data(), 1);
    known_.assign(std::size_t{1} << kSlotBits, known(0, answers_.data()));
  }

  bool is_worth_it() {
    if (blocks_left_ == 0) {
      const bool useless = trial_ && new_pixels_ > kTrialBlocks * (kBlockPixels / 8 * 7);
      if (trial_) pause_ = useless ? std::min(2 * pause_, kMostPause) : kLeastPause / 2;
      trial_ = !useless;
      blocks_left_ = trial_ ? kTrialBlocks : pause_;
      new_pixels_ = 0;
    }
    --blocks_left_;
    return trial_;
  }

  template <std::size_t kBytes, class ConvertNew>
  void convert_block(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels,
                     const ConvertNew& convert_new) {
    std::size_t new_runs = 0;
    for (std::size_t begin = 0, end = 0; begin < pixels; begin = end) {
      const std::uint32_t colour = colour_at<kBytes>(src + begin * kBytes);
      for (end = begin + 1; end < pixels && colour_at<kBytes>(src + end * kBytes) == colour;) ++end;
      const Known slot = known_[slot_of(colour)];
      if (static_cast<std::uint32_t>(slot) == colour) {
        fill(dst, begin, end, static_cast<std::uint32_t>(slot >> 32));
      } else {
        std::memcpy(&new_colours_[new_runs * kBytes], &colour, kBytes);
        new_[new_runs++] = {colour, static_cast<std::uint16_t>(begin), static_cast<std::uint16_t>(end)};
      }
    }
    if (new_runs == 0) return;
    convert_new(new_colours_.data(), answers_.data(), new_runs);
    for (std::size_t i = 0; i < new_runs; ++i) {
      const std::uint8_t* cmyk = &answers_[i * kCmykBytes];
      known_[slot_of(new_[i].colour)] = known(new_[i].colour, cmyk);
      fill(dst, new_[i].begin, new_[i].end, colour_at<kCmykBytes>(cmyk));
    }
    new_pixels_ += static_cast<std::uint32_t>(new_runs);
  }

  std::vector<Known> known_;
  bool trial_ = false;
  std::uint32_t blocks_left_ = 0;  ///< that go the way of the last decision
  std::uint32_t pause_ = kLeastPause / 2;
  std::uint32_t new_pixels_ = 0;  ///< converted in this trial
  std::array<std::uint8_t, kBlockPixels * kCmykBytes> new_colours_, answers_;
  std::array<NewRun, kBlockPixels> new_;
};

}  // namespace nvo
