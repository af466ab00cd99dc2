#include "screen/pair_sampler.h"

#include <algorithm>
#include <cstring>

namespace nvo {
namespace {

bool all_zero(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t any = 0, word = 0;
  for (; count >= sizeof word; bytes += sizeof word, count -= sizeof word) {
    std::memcpy(&word, bytes, sizeof word);
    any |= word;
  }
  for (; count > 0; --count) any |= *bytes++;
  return any == 0;
}

}  // namespace

PairSampler::PairSampler(const StripSampling& sampling, RowBuffers& buffers)
    : sampling_(sampling), kernels_(*sampling.kernels), buffers_(buffers) {
  const std::size_t pixels = sampling.src_w();
  buffers.source_base.resize(2 * (pixels + kPixelPadding));
  buffers.source_threshold.resize(2 * (pixels + kPixelPadding));
  size_codes(sampling, buffers.base);
  size_codes(sampling, buffers.threshold);
}

CodeRow PairSampler::codes(std::size_t y) {
  const RowSpan& span = (*sampling_.rows)[y];
  if (span.count == 0) return {};
  return span.count == 1 ? codes_of_row(source_row(span.first)) : codes_of_blend(span);
}

const std::uint8_t* PairSampler::source_row(std::uint32_t row) const {
  return sampling_.source.row(row);
}

/// Equal source rows give the same values, so nothing is computed again: common in flat art.
bool PairSampler::is_same(const Held& held, const std::uint8_t* row) const {
  return held.row == row || (held.row != nullptr && std::memcmp(held.row, row, sampling_.src_w()) == 0);
}

/// Calls `block(first, pixels, has_ink)` for the blocks of a source row. Where the block or the pixel behind
/// it has ink, `inks_` and `codes_` hold these pixels.
template <class Block>
void PairSampler::for_each_block(const std::uint8_t* row, const Block& block) {
  const bool zero_is_blank = sampling_.curve[0] == 0.0f;
  for (std::size_t first = 0; first < sampling_.src_w(); first += kBlock) {
    const std::size_t left = sampling_.src_w() - first;
    const std::size_t seen = std::min(kBlock + 1, left);
    const bool has_ink = !zero_is_blank || !all_zero(row + first, seen);
    for (std::size_t i = 0; has_ink && i < seen; ++i) {
      inks_[i] = sampling_.curve[row[first + i]];
      codes_[i] = sampling_.code_word_of_byte[row[first + i]];
    }
    block(first, std::min(kBlock, left), has_ink);
  }
}

CodeRow PairSampler::codes_of_row(const std::uint8_t* row) {
  const bool same = is_same(coded_, row);
  coded_.row = row;
  if (!same) {
    coded_.blank = is_blank_row(sampling_, row);
    if (!coded_.blank) {
      const PairWeights weights = sampling_.taps->pairs.weights();
      for_each_block(row, [&](std::size_t first, std::size_t pixels, bool has_ink) {
        std::uint8_t* const base = buffers_.source_base.data() + 2 * first;
        std::uint8_t* const threshold = buffers_.source_threshold.data() + 2 * first;
        if (has_ink) {
          kernels_.encode_pairs(inks_.data(), codes_.data(), weights.from(first), pixels, base, threshold);
        } else {
          std::memset(base, 0, 2 * pixels);
          std::memset(threshold, 0, 2 * pixels);
        }
      });
      return gather();
    }
  }
  if (coded_.blank) return {};
  return {false, buffers_.base.data(), buffers_.threshold.data()};
}

/// Sums the source rows of a device row, ascending, in each column as the plain form does; a blank row would
/// only add zeros. The row that two device rows share is mixed once.
CodeRow PairSampler::codes_of_blend(const RowSpan& span) {
  const std::size_t values = 2 * std::size_t{sampling_.src_w()};
  bool any = false;
  for (std::uint32_t row = span.first; row < span.first + span.count; ++row) {
    if (!mix(source_row(row))) continue;
    if (!any) buffers_.blended.assign(values, 0.0f);
    any = true;
    kernels_.add_scaled_row(buffers_.mixed.data(), area_weight(span.begin, span.end, row),
                            buffers_.blended.data(), values);
  }
  coded_ = {};
  if (!any) return {};
  kernels_.encode_row(buffers_.blended.data(), values, buffers_.source_base.data(),
                      buffers_.source_threshold.data());
  return gather();
}

/// Fills `mixed` from a source row; false for a blank one.
bool PairSampler::mix(const std::uint8_t* row) {
  const bool same = is_same(mixed_, row);
  mixed_.row = row;
  if (same) return !mixed_.blank;
  mixed_.blank = is_blank_row(sampling_, row);
  if (mixed_.blank) return false;
  buffers_.mixed.resize(2 * std::size_t{sampling_.src_w()});
  const PairWeights weights = sampling_.taps->pairs.weights();
  for_each_block(row, [&](std::size_t first, std::size_t pixels, bool has_ink) {
    float* const mixed = buffers_.mixed.data() + 2 * first;
    if (has_ink)
      kernels_.mix_pairs(inks_.data(), weights.from(first), pixels, mixed);
    else
      std::fill_n(mixed, 2 * pixels, 0.0f);
  });
  return true;
}

CodeRow PairSampler::gather() {
  kernels_.gather_codes(buffers_.source_base.data(), buffers_.source_threshold.data(),
                        sampling_.taps->pairs.gather.view(), buffers_.base.data(), buffers_.threshold.data());
  return {false, buffers_.base.data(), buffers_.threshold.data()};
}

}  // namespace nvo
