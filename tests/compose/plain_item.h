#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <utility>

#include "compose/color_conversion.h"
#include "compose/item_raster.h"
#include "compose/sampling.h"

namespace nvo::test {

/// An item composed one pixel after another by the plainest means: the yardstick for everything that works by
/// rows. Only the source rows `held` are seen where `banded` is set.
class PlainItem {
 public:
  /// Samples of a pixel, red, green and blue or four inks, to the inks that are printed.
  using Conversion = std::function<std::array<std::uint8_t, 4>(const std::array<std::uint8_t, 4>&)>;

  PlainItem(const LoadedImage& image, bool rotated, const Resampling& config, const ItemPlacement& place,
            bool banded)
      : image_(image), rotated_(rotated), config_(config), place_(place), banded_(banded) {}

  /// Takes the place of the formula, or of inks that stay as they are.
  void convert_with(Conversion conversion) { convert_ = std::move(conversion); }

  /// Returns the pixels written.
  std::uint64_t compose(const IndexRange& rows, const IndexRange& held, StripBuffer& strip) {
    held_ = held;
    std::uint64_t written = 0;
    for (std::uint32_t row = rows.begin; row < rows.end; ++row)
      for (std::uint32_t column = 0; column < place_.width; ++column)
        if (place_.x + column >= 0 && place_.x + column < strip.width)
          written += compose_pixel(row, column, strip);
    return written;
  }

 private:
  std::uint32_t source_width() const { return rotated_ ? image_.height : image_.width; }
  std::uint32_t source_height() const { return rotated_ ? image_.width : image_.height; }
  bool is_rgb() const { return image_.is_rgb || !image_.is_cmyk; }
  bool has_white() const { return image_.role_index(ChannelRole::white) >= 0; }
  bool shrinks() const { return place_.width < source_width() || place_.height < source_height(); }
  bool grows() const { return place_.width > source_width() || place_.height > source_height(); }

  bool hard() const {
    const auto off_or_on = [](std::uint8_t v) { return v < 5 || v > 250; };
    return grows() && config_.white_resampling_mode == ResamplingMode::hard &&
           std::all_of(image_.white_coverage.begin(), image_.white_coverage.end(), off_or_on);
  }

  std::size_t index(std::uint32_t x, std::uint32_t y) const {
    const std::uint32_t sx = std::min(rotated_ ? y : x, image_.width - 1);
    const std::uint32_t sy = std::min(rotated_ ? image_.height - 1 - x : y, image_.height - 1);
    return std::size_t{sy} * image_.width + sx;
  }
  bool is_held(std::uint32_t y) const { return !banded_ || (y >= held_.begin && y < held_.end); }

  std::uint8_t sample(int channel, std::uint32_t x, std::uint32_t y) const {
    if (channel < 0 || channel >= image_.channel_count || !is_held(y)) return 0;
    return image_.pixels[index(x, y) * image_.channel_count + static_cast<std::size_t>(channel)];
  }
  std::uint8_t coverage(std::uint32_t x, std::uint32_t y) const {
    return is_held(y) ? image_.white_coverage[index(x, y)] : 255;
  }

  template <class Sample, class Mix>
  std::uint8_t mixed(const Sample& at, const Mix& mix) const {
    return mix(at(mx_.lo, my_.lo), at(mx_.hi, my_.lo), at(mx_.lo, my_.hi), at(mx_.hi, my_.hi), mx_.frac,
               my_.frac);
  }
  std::uint8_t color_byte(int channel) const {
    const auto at = [&](std::uint32_t x, std::uint32_t y) { return sample(channel, x, y); };
    if (config_.color_resampling_mode == ResamplingMode::hard) return at(mx_.nearest(), my_.nearest());
    return mixed(at,
                 is_rgb() && config_.color_resampling_linear_light ? bilinear_linear_light : bilinear_byte);
  }

  std::uint8_t white_byte(std::uint32_t row, std::uint32_t column) const {
    if (has_white() && shrinks()) {
      const AxisSpan xs = map_axis_box(column, place_.width, source_width());
      const AxisSpan ys = map_axis_box(row, place_.height, source_height());
      std::uint64_t sum = 0, count = 0;
      for (std::uint32_t y = ys.start; y < ys.end; ++y)
        for (std::uint32_t x = xs.start; x < xs.end; ++x) sum += coverage(x, y), ++count;
      return static_cast<std::uint8_t>((count / 2 + sum) / count);
    }
    const auto at = [&](std::uint32_t x, std::uint32_t y) { return coverage(x, y); };
    return hard() ? at(mx_.nearest(), my_.nearest()) : mixed(at, bilinear_byte);
  }

  bool compose_pixel(std::uint32_t row, std::uint32_t column, StripBuffer& strip) {
    mx_ = map_axis_bilinear(column, place_.width, source_width());
    my_ = map_axis_bilinear(row, place_.height, source_height());
    const int alpha_index = image_.role_index(ChannelRole::alpha);
    const bool alpha_active = image_.has_alpha && alpha_index >= 0 && alpha_index < image_.channel_count;
    std::uint8_t white = white_byte(row, column);
    std::uint8_t alpha = 255;
    if (alpha_active) {
      const auto at = [&](std::uint32_t x, std::uint32_t y) { return sample(alpha_index, x, y); };
      alpha = has_white() || !hard() ? mixed(at, bilinear_byte) : white;
    } else if (is_rgb() && !image_.has_alpha && has_white()) {
      alpha = white;
    }
    if (alpha == 0) return false;

    auto inks = cmyk();
    const auto times_alpha = [&](std::uint8_t v) {
      return static_cast<std::uint8_t>((v * alpha + 127) / 255);
    };
    if (alpha < 255)
      for (std::uint8_t& ink : inks) ink = times_alpha(ink);
    if (alpha < 255 && has_white() && alpha_active) white = times_alpha(white);

    const auto at = static_cast<std::size_t>((place_.y + row - strip.y) * strip.width + place_.x + column);
    for (std::size_t i = 0; i < 4; ++i) strip.planes[i][at] = inks[i];
    strip.planes[4][at] = white;
    strip.explicit_white[at] = has_white() ? 255 : 0;
    return true;
  }

  std::array<std::uint8_t, 4> cmyk() const {
    std::array<std::uint8_t, 4> samples{}, inks{};
    for (int i = 0; i < (is_rgb() ? 3 : 4); ++i)
      samples[static_cast<std::size_t>(i)] =
          color_byte(is_rgb() ? i : image_.role_index(static_cast<ChannelRole>(i)));
    if (convert_) return convert_(samples);
    if (!is_rgb()) return samples;
    rgb_to_cmyk_simple(samples.data(), inks.data(), 1);
    return inks;
  }

  const LoadedImage& image_;
  const bool rotated_;
  const Resampling config_;
  const ItemPlacement place_;
  const bool banded_;
  IndexRange held_;
  AxisSample mx_, my_;
  Conversion convert_;
};

}  // namespace nvo::test
