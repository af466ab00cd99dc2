#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "screen/row_sampler.h"

namespace nvo {

/// The codes of device rows by area sampling where the column table has usable pairs: the fast form of
/// `RowSampler`, with the same codes. A source row is looked up, mixed and encoded once at the width of the
/// source, a block of pixels at a time, and only its codes are taken to device columns.
class PairSampler {
 public:
  PairSampler(const StripSampling& sampling, RowBuffers& buffers);

  /// As `RowSampler::codes`.
  CodeRow codes(std::size_t y);

 private:
  /// A source row that a buffer stands for.
  struct Held {
    const std::uint8_t* row = nullptr;
    bool blank = false;
  };

  const std::uint8_t* source_row(std::uint32_t row) const;
  bool is_same(const Held& held, const std::uint8_t* row) const;
  template <class Block>
  void for_each_block(const std::uint8_t* row, const Block& block);
  CodeRow codes_of_row(const std::uint8_t* row);
  CodeRow codes_of_blend(const RowSpan& span);
  bool mix(const std::uint8_t* row);
  CodeRow gather();

  const StripSampling& sampling_;
  const ScreeningKernels& kernels_;
  RowBuffers& buffers_;
  /// Pixels that stay in the nearest cache from look-up to use.
  static constexpr std::size_t kBlock = 64;
  std::array<float, kBlock + kPixelPadding> inks_{};
  std::array<CodeWord, kBlock + kPixelPadding> codes_{};
  Held coded_;  ///< in the buffers of codes
  Held mixed_;  ///< in `mixed`
};

}  // namespace nvo
