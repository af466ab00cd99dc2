#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

enum class InstructionSet { scalar, sse41, avx2 };

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

/// Values that must be readable (and finite) behind a row of pixels that a kernel filters or spreads.
inline constexpr std::size_t kPixelPadding = 32;

/// The inner loops of screening for one instruction set. All variants give the same bytes: they do the same
/// f32 operations in the same order, without fused products. No pointer needs an alignment; nothing but the
/// named outputs is written.
struct ScreeningKernels {
  InstructionSet set = InstructionSet::scalar;

  /// Filters one row of ink values to device width, each sum clamped to 0..255. Reads up to `taps +
  /// kPixelPadding` values behind the last start.
  void (*filter_columns)(const float* pixels, const ColumnTapsView& taps, float* out);

  /// sum[x] += row[x] * weight.
  void (*add_scaled_row)(const float* row, float weight, float* sum, std::size_t count);

  /// The drop codes of a row of ink values, as `drop_code`.
  void (*encode_row)(const float* inks, std::size_t count, std::uint8_t* base, std::uint8_t* threshold);

  /// Nearest sampling of a row that is already in codes: out[x] = in[column[x]] for both bytes; columns
  /// ascend.
  void (*spread_codes)(const std::uint8_t* base_in, const std::uint8_t* threshold_in,
                       const std::int32_t* column, std::size_t count, std::uint8_t* base,
                       std::uint8_t* threshold);

  /// dots[x] = base[x] + (mask[x] < threshold[x]).
  void (*screen_row)(const std::uint8_t* base, const std::uint8_t* threshold, const std::uint8_t* mask,
                     std::size_t count, std::uint8_t* dots);

  /// Clears the dots whose bit is 0; dot x is bit x % 64 of word x / 64.
  void (*keep_dots)(const std::uint64_t* kept, std::size_t count, std::uint8_t* dots);
};

/// The variant for one instruction set, or null where this machine cannot run it.
const ScreeningKernels* kernels_for(InstructionSet set);

/// The fastest variant that this machine runs.
const ScreeningKernels& best_kernels();

extern const ScreeningKernels kScalarKernels, kSse41Kernels, kAvx2Kernels;

}  // namespace nvo
