#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// Taps of the horizontal area filter: device column x is the sum over k of
/// pixel[start[x] + k] * weights[k * columns + x], k ascending from 0.
struct ColumnTapsView {
  const std::int32_t* start = nullptr;  ///< ascending
  const float* weights =
      nullptr;  ///< `taps` planes of `columns` weights; 0 past the end of a column's own taps
  std::size_t columns = 0;
  std::size_t taps = 0;
  std::int32_t reach = 0;  ///< greatest distance between the starts of columns 8n and 8n + 7
};

/// A `DropCode` in one word: `base` + 256 x `threshold`.
using CodeWord = std::uint16_t;

/// Weights of the device column that lies on pixels i and i + 1, for each i; 0 where there is none.
struct PairWeights {
  const float* left = nullptr;
  const float* right = nullptr;

  PairWeights from(std::size_t pixel) const { return {left + pixel, right + pixel}; }
};

/// Device columns in groups of `kGatherGroup`: column x of group g takes code `first[g] + offset[x]`, or
/// none where the offset is `kNoCode`.
struct CodeGatherView {
  const std::int32_t* first = nullptr;
  const std::uint8_t* offset = nullptr;  ///< below `kGatherReach`, or `kNoCode`
  std::size_t groups = 0;
};
inline constexpr std::size_t kGatherGroup = 16;
inline constexpr std::int32_t kGatherReach = 32;
inline constexpr std::uint8_t kNoCode = 0xff;

/// Values that must be readable (and finite) behind a row of pixels or codes that a kernel filters
/// or gathers.
inline constexpr std::size_t kPixelPadding = 32;

/// Dots that `screen_packed` takes at a time.
inline constexpr std::size_t kScreenBlock = 128;

/// The inner loops of screening for one instruction set. All variants give the same bytes: they do the same
/// f32 operations in the same order, without fused products. No pointer needs an alignment; nothing but the
/// named outputs is written. Kernels of all families take rows by bare pointers, seven where they work on as
/// many: they are called once a row, from code that has checked views.
struct ScreeningKernels {
  /// Filters one row of ink values to device width, each sum clamped to 0..255. Reads up to `taps +
  /// kPixelPadding` values behind the last start.
  void (*filter_columns)(const float* pixels, const ColumnTapsView& taps, float* out);

  /// sum[x] += row[x] * weight.
  void (*add_scaled_row)(const float* row, float weight, float* sum, std::size_t count);

  /// The drop codes of a row of ink values, as `drop_code`.
  void (*encode_row)(const float* inks, std::size_t count, std::uint8_t* base, std::uint8_t* threshold);

  /// The codes of a source row on which every device column lies in one pixel or on two neighbours: that of
  /// pixel i, `codes[i]`, goes to 2i, that of the weighted ink of pixels i and i + 1 to 2i + 1. Writes
  /// 2 x `pixels` bytes to both outputs.
  void (*encode_pairs)(const float* inks, const CodeWord* codes, const PairWeights& weights,
                       std::size_t pixels, std::uint8_t* base, std::uint8_t* threshold);

  /// The ink values of the same, in the same order.
  void (*mix_pairs)(const float* inks, const PairWeights& weights, std::size_t pixels, float* out);

  /// Takes codes to device columns: groups x `kGatherGroup` bytes for each output.
  void (*gather_codes)(const std::uint8_t* base_in, const std::uint8_t* threshold_in,
                       const CodeGatherView& gather, std::uint8_t* base, std::uint8_t* threshold);

  /// dots[x] = base[x] + (mask[x] < threshold[x]).
  void (*screen_row)(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                     std::size_t count, std::uint8_t* dots);

  /// Clears the dots whose bit is 0; dot x is bit x % 64 of word x / 64.
  void (*keep_dots)(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots);

  /// `screen_row`, `keep_dots` for the dots that both planes keep (all of them if null) and `pack_row` in one
  /// pass. Mask and codes are readable up to whole blocks of `kScreenBlock`; codes behind `count` are 0.
  void (*screen_packed)(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                        const std::uint64_t* kept, const std::uint64_t* also_kept, std::size_t count,
                        std::uint8_t* out);

  /// The same for the dots that `kept` keeps and `not_kept` doesn't, added to rows whose levels there are 0.
  void (*add_packed)(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                     const std::uint64_t* kept, const std::uint64_t* not_kept, std::size_t count,
                     std::uint8_t* out);

  /// Bit x % 64 of word x / 64 tells whether bytes[x] is at least `least` (1 and more). Writes whole words.
  void (*bits_at_least)(const std::uint8_t* bytes, std::uint8_t least, std::size_t count,
                        std::uint64_t* words);
};

}  // namespace nvo
