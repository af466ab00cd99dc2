// For every machine.
#include "screen/kernels/bit_row_steps.h"
#include "screen/kernels/coverage_steps.h"
#include "screen/kernels/instruction_set.h"
#include "screen/kernels/scalar_steps.h"

namespace nvo {
namespace {

void filter_columns(const float* pixels, const ColumnTapsView& taps, float* out) {
  scalar_steps::filter_columns(pixels, taps, out, 0);
}

void add_scaled_row(const float* row, float weight, float* sum, std::size_t count) {
  scalar_steps::add_scaled_row(row, weight, sum, count, 0);
}

void encode_row(const float* inks, std::size_t count, std::uint8_t* base, std::uint8_t* threshold) {
  scalar_steps::encode_row(inks, count, base, threshold, 0);
}

void encode_pairs(const float* inks, const CodeWord* codes, const PairWeights& weights, std::size_t pixels,
                  std::uint8_t* base, std::uint8_t* threshold) {
  scalar_steps::encode_pairs(inks, codes, weights, pixels, base, threshold, 0);
}

void mix_pairs(const float* inks, const PairWeights& weights, std::size_t pixels, float* out) {
  scalar_steps::mix_pairs(inks, weights, pixels, out, 0);
}

void gather_codes(const std::uint8_t* base_in, const std::uint8_t* threshold_in, const CodeGatherView& gather,
                  std::uint8_t* base, std::uint8_t* threshold) {
  scalar_steps::gather_codes(base_in, threshold_in, gather, base, threshold);
}

void screen_row(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                std::size_t count, std::uint8_t* dots) {
  scalar_steps::screen_row(base, threshold, mask, count, dots, 0);
}

void keep_dots(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots) {
  scalar_steps::keep_dots(kept, count, dots, 0);
}

void screen_packed(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                   const std::uint64_t* kept, const std::uint64_t* also_kept, std::size_t count,
                   std::uint8_t* out) {
  scalar_steps::screen_packed(base, threshold, mask, kept, also_kept, count, out);
}

void add_packed(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                const std::uint64_t* kept, const std::uint64_t* not_kept, std::size_t count,
                std::uint8_t* out) {
  scalar_steps::add_packed(base, threshold, mask, kept, not_kept, count, out);
}

void bits_at_least(const std::uint8_t* bytes, std::uint8_t least, std::size_t count, std::uint64_t* words) {
  scalar_steps::bits_at_least(bytes, least, count, words, 0);
}

void pack_row(const std::uint8_t* dots, std::uint32_t width, std::uint8_t* out) {
  scalar_steps::pack_row(dots, width, out, 0);
}

void count_rows(const std::uint64_t* outline, const OutlineDistances& from, const OutlineDistances& to,
                std::uint8_t reach, std::size_t words) {
  scalar_steps::count_rows(outline, from, to, reach, words);
}

void nearest_keys(const OutlineDistances& above, const OutlineDistances& below, std::size_t words,
                  std::uint8_t* keys, std::uint8_t* live) {
  scalar_steps::nearest_keys(above, below, words, keys, live);
}

void find_nearest(const RingMetric& metric, const RingRow& row, std::size_t words) {
  scalar_steps::find_nearest(metric, row, words);
}

}  // namespace
}  // namespace nvo

namespace nvo::instruction_sets {

extern constinit const InstructionSet scalar = {
    "scalar",
    {filter_columns, add_scaled_row, encode_row, encode_pairs, mix_pairs, gather_codes, screen_row, keep_dots,
     screen_packed, add_packed, bits_at_least},
    bit_row_steps::kKernels,
    {count_rows, nearest_keys, find_nearest},
    coverage_steps::kKernels,
    {pack_row}};

}  // namespace nvo::instruction_sets
