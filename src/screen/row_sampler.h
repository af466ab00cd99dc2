#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/plane_view.h"
#include "screen/column_taps.h"
#include "screen/kernels/drop_code.h"
#include "screen/kernels/screening_kernels.h"

namespace nvo {

/// The source rows of the strip that one device row is made from, and the stretch it covers of them.
struct RowSpan {
  std::uint32_t first = 0, count = 0;  ///< no rows: the device row is empty
  float begin = 0.0f, end = 0.0f;      ///< source rows; area sampling only
};

/// Area sampling of device rows `first_row` .. `first_row + out.size() - 1` from a strip that holds source
/// rows `strip_y` .. `strip_y + strip_rows - 1`.
void area_row_spans(std::vector<RowSpan>& out, std::uint32_t first_row, float scale_y, std::uint32_t strip_y,
                    std::uint32_t strip_rows);

/// Nearest sampling of the same rows; the nearest row is that of the whole plane, kept within the strip.
void nearest_row_spans(std::vector<RowSpan>& out, std::uint32_t first_row, std::uint32_t dev_h,
                       std::uint32_t total_rows, std::uint32_t strip_y, std::uint32_t strip_rows);

/// What sampling one plane of a strip needs; shared by its row workers, read-only.
struct StripSampling {
  const ScreeningKernels* kernels = nullptr;
  PlaneView source;  ///< the strip's source rows
  std::uint32_t dev_w = 0;
  const float* curve = nullptr;                   ///< 256 ink values, each 0..255
  std::array<DropCode, 256> code_of_byte{};       ///< of an unfiltered source byte
  std::array<CodeWord, 256> code_word_of_byte{};  ///< the same
  const std::vector<RowSpan>* rows = nullptr;     ///< one a device row
  const ColumnTaps* taps = nullptr;               ///< area sampling; null for nearest
  std::vector<std::int32_t> nearest_column;       ///< nearest sampling
  CodeGather nearest_gather;                      ///< the same, where it is usable

  std::uint32_t src_w() const { return source.width(); }
  bool area() const { return taps != nullptr; }
};

void set_curve(StripSampling& sampling, const float* curve);
void set_nearest_columns(StripSampling& sampling);

/// Whether a source row gives no ink anywhere. Weights and curves are never negative, so zeros stay zeros.
bool is_blank_row(const StripSampling& sampling, const std::uint8_t* row);

/// Codes of device rows.
struct HeldCodes {
  std::vector<std::uint8_t> base, threshold;  ///< as in `RowBuffers`
};

/// Row buffers of one worker, kept from call to call for their memory alone.
struct RowBuffers {
  std::vector<float> inks;      ///< a source row after the curve
  std::vector<float> filtered;  ///< the same at device width
  std::vector<float> blended;   ///< a device row of several source rows
  std::vector<float> mixed;     ///< pixels and pairs of a source row by turns
  std::vector<std::uint8_t> source_base, source_threshold;
  std::vector<std::uint8_t> base, threshold;  ///< in whole blocks of `kScreenBlock`
  std::vector<std::uint64_t> kept;
  std::vector<std::uint8_t> dots;  ///< a row of drop levels on its way to packed form
  std::vector<std::uint8_t> ring_dots;
  HeldCodes held;  ///< see `RingScreener`
  HeldCodes ring;  ///< the same
};

/// Room for the codes of a device row; those behind its last dot are 0.
void size_codes(const StripSampling& sampling, std::vector<std::uint8_t>& codes);

/// The drop codes of one device row; all zero when `blank`, and then without arrays.
struct CodeRow {
  bool blank = true;
  const std::uint8_t* base = nullptr;
  const std::uint8_t* threshold = nullptr;
};

/// Samples the device rows of a strip for one worker, in any order; what rows share that are asked for one
/// after the other is computed once.
class RowSampler {
 public:
  RowSampler(const StripSampling& sampling, RowBuffers& buffers);

  /// The codes of device row `y`, counted from the strip's first; valid until the next call.
  CodeRow codes(std::size_t y);

  /// The ink values of the same row.
  void inks(std::size_t y, float* out);

 private:
  void load(std::uint32_t row);
  void filter_loaded_row();
  bool blend(const RowSpan& span);
  void encode_loaded_row();
  void gather_nearest(std::uint8_t* base, std::uint8_t* threshold) const;

  const StripSampling& sampling_;
  const ScreeningKernels& kernels_;
  RowBuffers& buffers_;
  const std::uint8_t* loaded_ = nullptr;  ///< the source row that the buffers stand for
  bool blank_ = false;                    ///< it gives no ink
  bool encoded_ = false;                  ///< the code buffers hold it
};

}  // namespace nvo
