#include "compose/row_sampler.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <span>

namespace nvo {
namespace {

constexpr std::array<std::uint8_t, 256> make_byte_values() {
  std::array<std::uint8_t, 256> values{};
  for (unsigned i = 0; i < 256; ++i) values[i] = static_cast<std::uint8_t>(i);
  return values;
}
/// What a row of a repeated value points at.
constexpr std::array<std::uint8_t, 256> kByteValues = make_byte_values();

constexpr std::array<float, 256> make_byte_floats() {
  std::array<float, 256> values{};
  for (unsigned i = 0; i < 256; ++i) values[i] = static_cast<float>(i);
  return values;
}
constexpr std::array<float, 256> kByteFloats = make_byte_floats();

/// Copies `count` samples that lie `kStep` bytes apart.
template <std::ptrdiff_t kStep>
void gather(const std::uint8_t* first, std::size_t count, std::uint8_t invert, std::uint8_t* __restrict out) {
  for (std::size_t i = 0; i < count; ++i)
    out[i] = static_cast<std::uint8_t>(first[static_cast<std::ptrdiff_t>(i) * kStep] ^ invert);
}

/// Copies `count` neighbouring samples from sample `x` on. The steps of common pixel layouts are compiled
/// apart.
void copy_samples(const SampleRow& row, std::uint32_t x, std::size_t count, std::uint8_t* out) {
  const std::uint8_t* first = row.first + static_cast<std::ptrdiff_t>(x) * row.step;
  switch (row.step) {
    case 0:
      std::memset(out, *first ^ row.invert, count);
      return;
    case 1:
      gather<1>(first, count, row.invert, out);
      return;
    case 4:
      gather<4>(first, count, row.invert, out);
      return;
    case 5:
      gather<5>(first, count, row.invert, out);
      return;
    default:
      for (std::size_t i = 0; i < count; ++i)
        out[i] = static_cast<std::uint8_t>(first[static_cast<std::ptrdiff_t>(i) * row.step] ^ row.invert);
  }
}

/// Adds up the columns of a box row and divides. `Sum` holds 255 times the rows of a box.
template <class Sum>
void box_means(const ChannelView& channel, const ColumnMap& columns, const AxisSpan& rows,
               std::uint8_t* out) {
  const std::uint32_t first = columns.boxes()[0].start;
  const std::uint32_t last = columns.boxes()[columns.size() - 1].end;
  std::vector<Sum> sums(last - first, Sum{0});
  std::vector<std::uint8_t> samples(last - first);
  for (std::uint32_t y = rows.start; y < rows.end; ++y) {
    copy_samples(channel.row(y), first, samples.size(), samples.data());
    for (std::size_t x = 0; x < sums.size(); ++x) sums[x] += samples[x];
  }
  for (std::uint32_t i = 0; i < columns.size(); ++i) {
    const AxisSpan span = columns.boxes()[i];
    const std::uint64_t count = std::uint64_t{span.end - span.start} * (rows.end - rows.start);
    std::uint64_t sum = count / 2;
    for (std::uint32_t x = span.start; x < span.end; ++x) sum += sums[x - first];
    out[i] = static_cast<std::uint8_t>(sum / count);
  }
}

/// Whether channel i + 1 lies one byte behind channel i, in the same rows.
bool lie_side_by_side(const std::vector<ChannelView>& channels) {
  for (std::size_t i = 0; i < channels.size(); ++i)
    if (!channels[i].exists() || channels[i].samples != channels[0].samples + i) return false;
  return true;
}

/// Copies `kChannels` bytes from each pixel of `pixel_bytes` bytes. Where the source pixel has a fourth byte
/// it is copied along and overwritten by the next pixel, which costs less than to leave it out.
template <std::size_t kChannels>
void pack_pixels(const std::uint8_t* __restrict pixels, std::ptrdiff_t pixel_bytes, std::size_t count,
                 std::uint8_t* __restrict out) {
  if (pixel_bytes == static_cast<std::ptrdiff_t>(kChannels)) {
    std::memcpy(out, pixels, count * kChannels);
  } else if (pixel_bytes >= 4) {
    for (std::size_t i = 0; i < count; ++i)
      std::memcpy(out + i * kChannels, pixels + static_cast<std::ptrdiff_t>(i) * pixel_bytes, 4);
  } else {
    for (std::size_t i = 0; i < count; ++i)
      std::memcpy(out + i * kChannels, pixels + static_cast<std::ptrdiff_t>(i) * pixel_bytes, kChannels);
  }
}

template <std::size_t kChannels>
void decode_interleaved(const std::uint8_t* source, std::ptrdiff_t pixel_bytes,
                        const std::array<float, 256>& values, std::vector<Float4>& pixels) {
  for (Float4& pixel : pixels) {
    pixel = Float4::of(values[source[0]], values[source[1]], values[source[2]],
                       kChannels == 4 ? values[source[3]] : 0.0f);
    source += pixel_bytes;
  }
}

/// `BilinearWeights::mix` on the channels of four pixels.
inline Float4 mix(float fx, float fy, const Float4& p00, const Float4& p10, const Float4& p01,
                  const Float4& p11) {
  const Float4 weights = Float4::of(1.0f - fy, 1.0f - fy, fy, fy) * Float4::of(1.0f - fx, fx, 1.0f - fx, fx);
  return weights.broadcast(0) * p00 + weights.broadcast(1) * p10 + weights.broadcast(2) * p01 +
         weights.broadcast(3) * p11;
}

/// Four bytes, lane 0 first in memory.
inline void store_bytes(const Float4::Integers& values, std::uint8_t* out) {
  for (int lane = 0; lane < 4; ++lane) out[lane] = static_cast<std::uint8_t>(values[lane]);
}

template <int kChannels>
inline void store_srgb(const LinearLight& curve, const Float4& value, std::uint8_t* out) {
  const Float4 light = min(value, Float4::all(1.0f));  // weights and light are never negative
  const Float4::Integers cells = LinearLight::cells_of(light);
  for (int lane = 0; lane < kChannels; ++lane)
    out[lane] = curve.encode_in_cell(light[lane], static_cast<std::uint32_t>(cells[lane]));
}

/// Mixes columns of two decoded rows, whose first element is source column `first_source`.
template <int kChannels, bool kLinearLight>
void mix_columns(const Float4* top, const Float4* bottom, float fy, std::span<const AxisSample> columns,
                 std::uint32_t first_source, std::uint8_t* out) {
  const LinearLight& curve = LinearLight::instance();
  for (const AxisSample& column : columns) {
    const std::size_t lo = column.lo - first_source;
    const std::size_t hi = column.hi - first_source;
    const Float4 mixed = mix(column.frac, fy, top[lo], top[hi], bottom[lo], bottom[hi]);
    if constexpr (kLinearLight) {
      store_srgb<kChannels>(curve, mixed, out);
    } else {
      store_bytes(min(mixed + Float4::all(0.5f), Float4::all(255.0f)).truncated(), out);
    }
    out += kChannels;
  }
}

}  // namespace

SampleRow ChannelView::row(std::uint32_t y) const {
  if (!exists() || y < first_row || y - first_row >= rows) return {&kByteValues[outside], 0, 0};
  return {samples + static_cast<std::ptrdiff_t>(y - first_row) * row_step, column_step, invert};
}

ColumnMap::ColumnMap(std::uint32_t begin, std::uint32_t end, std::uint32_t dest_width,
                     std::uint32_t source_width, bool with_boxes) {
  const std::size_t count = end > begin ? end - begin : 0;
  samples_.resize(count);
  nearest_.resize(count);
  if (with_boxes) boxes_.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto column = static_cast<std::uint32_t>(begin + i);
    samples_[i] = map_axis_bilinear(column, dest_width, source_width);
    nearest_[i] = samples_[i].nearest();
    if (with_boxes) boxes_[i] = map_axis_box(column, dest_width, source_width);
    exact_ = exact_ && samples_[i].frac == 0.0f;
    contiguous_ = contiguous_ && nearest_[i] == nearest_[0] + i;
  }
  if (count == 0) return;
  first_source_ = samples_.front().lo;
  source_count_ = samples_.back().hi - first_source_ + 1;
}

void ChannelSampler::nearest(std::uint32_t source_row, std::uint8_t* out) const {
  const SampleRow row = channel_.row(source_row);
  if (columns_.contiguous() && columns_.size() > 0) {
    copy_samples(row, columns_.nearest()[0], columns_.size(), out);
  } else {
    for (std::uint32_t i = 0; i < columns_.size(); ++i) out[i] = row.at(columns_.nearest()[i]);
  }
}

void ChannelSampler::bilinear(const AxisSample& row, std::uint8_t* out) {
  // A weight of 0 takes nothing from a sample, so that a row between no rows needs only its own.
  if (columns_.exact() && row.frac == 0.0f) return nearest(row.lo, out);
  const std::uint32_t first = columns_.first_source();
  const auto copy_row = [&](std::uint32_t y, std::vector<std::uint8_t>& samples) {
    samples.resize(columns_.source_count());
    copy_samples(channel_.row(y), first, samples.size(), samples.data());
  };
  const auto [top, bottom] = row_pair_.get(row.lo, row.frac == 0.0f ? row.lo : row.hi, copy_row);
  for (std::uint32_t i = 0; i < columns_.size(); ++i) {
    const AxisSample& column = columns_.samples()[i];
    const std::size_t lo = column.lo - first;
    const std::size_t hi = column.hi - first;
    // Equal samples mix to themselves: the weights' sum is 1 but for a rounding that a byte doesn't see.
    const bool flat = top[lo] == top[hi] && top[lo] == bottom[lo] && top[lo] == bottom[hi];
    out[i] = flat ? top[lo] : bilinear_byte(top[lo], top[hi], bottom[lo], bottom[hi], column.frac, row.frac);
  }
}

void ChannelSampler::box(const AxisSpan& rows, std::uint8_t* out) const {
  if (columns_.size() == 0) return;
  constexpr std::uint32_t kMaxRowsOf32Bits = std::numeric_limits<std::uint32_t>::max() / 255;
  if (rows.end - rows.start <= kMaxRowsOf32Bits) {
    box_means<std::uint32_t>(channel_, columns_, rows, out);
  } else {
    box_means<std::uint64_t>(channel_, columns_, rows, out);
  }
}

ColorSampler::ColorSampler(std::vector<ChannelView> channels, const ColumnMap& columns, bool linear_light)
    : channels_(std::move(channels)),
      columns_(columns),
      linear_light_(linear_light),
      interleaved_(lie_side_by_side(channels_)) {}

const std::uint8_t* ColorSampler::interleaved_row(std::uint32_t source_row) const {
  const SampleRow row = channels_[0].row(source_row);
  return interleaved_ && row.step != 0 ? row.first : nullptr;
}

void ColorSampler::nearest(std::uint32_t source_row, std::uint32_t begin, std::uint32_t end,
                           std::uint8_t* out) const {
  const std::uint8_t* pixels = interleaved_row(source_row);
  if (pixels != nullptr && columns_.contiguous()) {
    const std::ptrdiff_t pixel_bytes = channels_[0].column_step;
    pixels += static_cast<std::ptrdiff_t>(columns_.nearest()[begin]) * pixel_bytes;
    if (channel_count() == 3) {
      pack_pixels<3>(pixels, pixel_bytes, end - begin, out);
    } else {
      pack_pixels<4>(pixels, pixel_bytes, end - begin, out);
    }
    return;
  }
  for (std::size_t channel = 0; channel < channels_.size(); ++channel) {
    const SampleRow row = channels_[channel].row(source_row);
    for (std::uint32_t i = begin; i < end; ++i)
      out[std::size_t{i - begin} * channels_.size() + channel] = row.at(columns_.nearest()[i]);
  }
}

void ColorSampler::decode(std::uint32_t source_row, std::vector<Float4>& pixels) const {
  pixels.resize(columns_.source_count());
  const std::array<float, 256>& values = linear_light_ ? LinearLight::instance().decode_table() : kByteFloats;
  if (const std::uint8_t* source = interleaved_row(source_row)) {
    const std::ptrdiff_t pixel_bytes = channels_[0].column_step;
    source += static_cast<std::ptrdiff_t>(columns_.first_source()) * pixel_bytes;
    const auto decode_pixels = channels_.size() == 3 ? decode_interleaved<3> : decode_interleaved<4>;
    decode_pixels(source, pixel_bytes, values, pixels);
    return;
  }
  std::array<SampleRow, 4> rows;
  rows.fill({kByteValues.data(), 0, 0});
  for (std::size_t channel = 0; channel < channels_.size(); ++channel)
    rows[channel] = channels_[channel].row(source_row);
  const std::size_t first = columns_.first_source();
  for (std::size_t x = 0; x < pixels.size(); ++x)
    pixels[x] = Float4::of(values[rows[0].at(first + x)], values[rows[1].at(first + x)],
                           values[rows[2].at(first + x)], values[rows[3].at(first + x)]);
}

void ColorSampler::bilinear(const AxisSample& row, std::uint32_t begin, std::uint32_t end,
                            std::uint8_t* out) {
  const bool unmixed = columns_.exact() && row.frac == 0.0f;
  if (unmixed && (!linear_light_ || LinearLight::instance().round_trip_is_identity()))
    return nearest(row.lo, begin, end, out);

  const auto [top, bottom] =
      row_pair_.get(row.lo, row.frac == 0.0f ? row.lo : row.hi,
                    [this](std::uint32_t y, std::vector<Float4>& values) { decode(y, values); });
  const auto kernel = channels_.size() == 3 ? (linear_light_ ? mix_columns<3, true> : mix_columns<3, false>)
                                            : (linear_light_ ? mix_columns<4, true> : mix_columns<4, false>);
  kernel(top, bottom, row.frac, {columns_.samples() + begin, end - begin}, columns_.first_source(), out);
}

}  // namespace nvo
