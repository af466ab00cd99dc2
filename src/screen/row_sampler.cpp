#include "screen/row_sampler.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "screen/device_grid.h"

namespace nvo {

void area_row_spans(std::vector<RowSpan>& out, std::uint32_t first_row, float scale_y, std::uint32_t strip_y,
                    std::uint32_t strip_rows) {
  const float top = static_cast<float>(strip_y), rows = static_cast<float>(strip_rows);
  std::uint32_t y = first_row;
  for (RowSpan& span : out) {
    span = {};
    span.begin = std::clamp(static_cast<float>(y) * scale_y - top, 0.0f, rows);
    span.end = std::clamp(static_cast<float>(y + 1) * scale_y - top, 0.0f, rows);
    ++y;
    if (!(span.end > span.begin)) continue;
    const auto first = static_cast<std::uint64_t>(std::floor(span.begin));
    const auto stop = std::min<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(span.end)), strip_rows);
    if (first >= stop) continue;
    span.first = static_cast<std::uint32_t>(first);
    span.count = static_cast<std::uint32_t>(stop - first);
  }
}

void nearest_row_spans(std::vector<RowSpan>& out, std::uint32_t first_row, std::uint32_t dev_h,
                       std::uint32_t total_rows, std::uint32_t strip_y, std::uint32_t strip_rows) {
  std::uint32_t y = first_row;
  for (RowSpan& span : out) {
    const std::uint32_t nearest = nearest_source_index(y++, dev_h, total_rows);
    span = {std::clamp(nearest, strip_y, strip_y + (strip_rows - 1)) - strip_y, 1, 0.0f, 0.0f};
  }
}

void set_curve(StripSampling& sampling, const float* curve) {
  sampling.curve = curve;
  std::transform(curve, curve + sampling.code_of_byte.size(), sampling.code_of_byte.begin(), drop_code);
  std::ranges::transform(sampling.code_of_byte, sampling.code_word_of_byte.begin(), [](DropCode code) {
    return static_cast<CodeWord>(code.base | code.threshold << 8);
  });
}

void set_nearest_columns(StripSampling& sampling) {
  sampling.nearest_column.resize(sampling.dev_w);
  for (std::uint32_t x = 0; x < sampling.dev_w; ++x)
    sampling.nearest_column[x] =
        static_cast<std::int32_t>(nearest_source_index(x, sampling.dev_w, sampling.src_w()));
  sampling.nearest_gather = build_code_gather(sampling.nearest_column);
}

bool is_blank_row(const StripSampling& sampling, const std::uint8_t* row) {
  return sampling.curve[0] == 0.0f && row[0] == 0 && std::memcmp(row, row + 1, sampling.src_w() - 1) == 0;
}

void size_codes(const StripSampling& sampling, std::vector<std::uint8_t>& codes) {
  codes.resize((sampling.dev_w + kScreenBlock - 1) / kScreenBlock * kScreenBlock);
  std::fill(codes.begin() + sampling.dev_w, codes.end(), std::uint8_t{0});
}

RowSampler::RowSampler(const StripSampling& sampling, RowBuffers& buffers)
    : sampling_(sampling), kernels_(*sampling.kernels), buffers_(buffers) {
  if (sampling.area()) {
    buffers.inks.resize(std::size_t{sampling.src_w()} + sampling.taps->taps + kPixelPadding);
    buffers.filtered.resize(sampling.dev_w);
    buffers.blended.resize(sampling.dev_w);
  } else {
    buffers.source_base.resize(std::size_t{sampling.src_w()} + kPixelPadding);
    buffers.source_threshold.resize(std::size_t{sampling.src_w()} + kPixelPadding);
  }
  size_codes(sampling, buffers.base);
  size_codes(sampling, buffers.threshold);
}

CodeRow RowSampler::codes(std::size_t y) {
  const RowSpan& span = (*sampling_.rows)[y];
  if (span.count == 0) return {};
  if (span.count == 1) {
    load(span.first);
    if (blank_) return {};
    if (!encoded_) encode_loaded_row();
  } else {
    if (!blend(span)) return {};
    kernels_.encode_row(buffers_.blended.data(), sampling_.dev_w, buffers_.base.data(),
                        buffers_.threshold.data());
    encoded_ = false;
  }
  return {false, buffers_.base.data(), buffers_.threshold.data()};
}

void RowSampler::inks(std::size_t y, float* out) {
  const RowSpan& span = (*sampling_.rows)[y];
  const std::size_t width = sampling_.dev_w;
  const float* row = nullptr;
  if (!sampling_.area()) {
    const std::uint8_t* source = sampling_.source.row(span.first);
    for (std::size_t x = 0; x < width; ++x) out[x] = sampling_.curve[source[sampling_.nearest_column[x]]];
    return;
  }
  if (span.count == 1) {
    load(span.first);
    if (!blank_) row = buffers_.filtered.data();
  } else if (span.count > 1 && blend(span)) {
    row = buffers_.blended.data();
  }
  if (row != nullptr) {
    std::copy_n(row, width, out);
  } else {
    std::fill_n(out, width, 0.0f);
  }
}

/// A source row equal to the one before it gives the same values, so nothing is computed again: common in
/// flat art.
void RowSampler::load(std::uint32_t row) {
  const std::uint8_t* pixels = sampling_.source.row(row);
  const bool same =
      pixels == loaded_ || (loaded_ != nullptr && std::memcmp(pixels, loaded_, sampling_.src_w()) == 0);
  loaded_ = pixels;
  if (same) return;
  encoded_ = false;
  blank_ = is_blank_row(sampling_, pixels);
  if (!blank_ && sampling_.area()) filter_loaded_row();
}

void RowSampler::filter_loaded_row() {
  float* inks = buffers_.inks.data();
  for (std::size_t x = 0; x < sampling_.src_w(); ++x) inks[x] = sampling_.curve[loaded_[x]];
  kernels_.filter_columns(inks, sampling_.taps->view(), buffers_.filtered.data());
}

/// Sums the source rows of a device row, ascending. Where device rows ascend the next one starts no higher
/// than at the last row of this one, so a single filtered row is enough to filter each source row once. Blank
/// rows would only add zeros. Returns whether any row has ink.
bool RowSampler::blend(const RowSpan& span) {
  bool any = false;
  for (std::uint32_t row = span.first; row < span.first + span.count; ++row) {
    load(row);
    if (blank_) continue;
    if (!any) std::fill(buffers_.blended.begin(), buffers_.blended.end(), 0.0f);
    any = true;
    kernels_.add_scaled_row(buffers_.filtered.data(), area_weight(span.begin, span.end, row),
                            buffers_.blended.data(), sampling_.dev_w);
  }
  return any;
}

void RowSampler::encode_loaded_row() {
  std::uint8_t* base = buffers_.base.data();
  std::uint8_t* threshold = buffers_.threshold.data();
  if (sampling_.area()) {
    kernels_.encode_row(buffers_.filtered.data(), sampling_.dev_w, base, threshold);
  } else {
    for (std::size_t x = 0; x < sampling_.src_w(); ++x) {
      const DropCode code = sampling_.code_of_byte[loaded_[x]];
      buffers_.source_base[x] = code.base;
      buffers_.source_threshold[x] = code.threshold;
    }
    gather_nearest(base, threshold);
  }
  encoded_ = true;
}

void RowSampler::gather_nearest(std::uint8_t* base, std::uint8_t* threshold) const {
  const std::uint8_t* const source_base = buffers_.source_base.data();
  const std::uint8_t* const source_threshold = buffers_.source_threshold.data();
  if (sampling_.nearest_gather.usable()) {
    kernels_.gather_codes(source_base, source_threshold, sampling_.nearest_gather.view(), base, threshold);
    return;
  }
  for (std::size_t x = 0; x < sampling_.dev_w; ++x) {
    const auto column = static_cast<std::size_t>(sampling_.nearest_column[x]);
    base[x] = source_base[column];
    threshold[x] = source_threshold[column];
  }
}

}  // namespace nvo
