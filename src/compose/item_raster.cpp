#include "compose/item_raster.h"

#include <algorithm>
#include <cmath>

#include "core/platform/clock.h"

namespace nvo {
namespace {

/// Keeps a size that is an exact number of pixels in inches from gaining one through f32 noise.
constexpr double kSizeSlack = 0.0001;
constexpr std::uint8_t kFullWhite = 255;
constexpr std::uint8_t kStoredAsComplement = 0xFF;

std::int64_t position_px(float inches, std::uint32_t dpi) {
  constexpr double kFarAway = 1e15;  // beyond any sheet, and no overflow when sizes are added
  const double pixels = static_cast<double>(inches) * dpi;
  return std::isnan(pixels) ? 0 : std::llround(std::clamp(pixels, -kFarAway, kFarAway));
}

std::uint32_t size_px(float inches, std::uint32_t dpi) {
  const double pixels = std::ceil(static_cast<double>(inches) * dpi - kSizeSlack);
  if (!(pixels > 0.0)) return 1;
  return static_cast<std::uint32_t>(std::min(pixels, 4294967295.0));
}

/// The part of [origin, origin + size) that lies in [0, limit), counted from `origin`.
IndexRange clip(std::int64_t origin, std::uint32_t size, std::int64_t limit) {
  const std::int64_t begin = std::clamp<std::int64_t>(-origin, 0, size);
  const std::int64_t end = std::clamp<std::int64_t>(limit - origin, 0, size);
  return {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end)};
}

/// A block of interleaved samples: `rows` stored rows from `first_row` on.
struct SampleBlock {
  const std::vector<std::uint8_t>& bytes;
  std::uint32_t width, first_row, rows, channels;
  bool rotated;
};

/// One channel of a block; a view without samples where the block has no such channel or lacks bytes.
ChannelView view_channel(const SampleBlock& block, int channel, std::uint8_t outside) {
  ChannelView view;
  view.outside = outside;
  const auto pixel_bytes = static_cast<std::ptrdiff_t>(block.channels);
  const auto row_bytes = static_cast<std::ptrdiff_t>(block.width) * pixel_bytes;
  if (channel < 0 || channel >= pixel_bytes || block.width == 0 || block.rows == 0) return view;
  if (block.bytes.size() / static_cast<std::size_t>(row_bytes) < block.rows) return view;

  view.samples = block.bytes.data() + channel;
  view.first_row = block.first_row;
  if (block.rotated) {  // clockwise: what was the left column, from its bottom up, is the top row
    view.samples += static_cast<std::ptrdiff_t>(block.rows - 1) * row_bytes;
    view.column_step = -row_bytes;
    view.row_step = pixel_bytes;
    view.rows = block.width;
  } else {
    view.column_step = pixel_bytes;
    view.row_step = row_bytes;
    view.rows = block.rows;
  }
  return view;
}

std::vector<ChannelView> view_color(const ImageMeta& meta, const SampleBlock& block, bool is_rgb) {
  if (is_rgb) return {view_channel(block, 0, 0), view_channel(block, 1, 0), view_channel(block, 2, 0)};
  std::vector<ChannelView> channels;
  for (const ChannelRole role :
       {ChannelRole::cyan, ChannelRole::magenta, ChannelRole::yellow, ChannelRole::black})
    channels.push_back(view_channel(block, meta.role_index(role), 0));
  return channels;
}

bool is_channel_of(const ImageMeta& meta, int index) {
  return index >= 0 && index < meta.channel_count;
}

/// Coverage by its definition: the complement of a White channel, else alpha, else full.
ChannelView view_coverage_of_samples(const ImageMeta& meta, const SampleBlock& block) {
  const int white = meta.role_index(ChannelRole::white);
  const bool from_white = is_channel_of(meta, white);
  ChannelView view =
      view_channel(block, from_white ? white : meta.role_index(ChannelRole::alpha), kFullWhite);
  if (from_white) view.invert = kStoredAsComplement;
  return view;
}

bool all_opaque(const std::uint8_t* alpha, std::size_t count) {
  std::uint8_t conjunction = 255;
  for (std::size_t i = 0; i < count; ++i) conjunction &= alpha[i];
  return conjunction == 255;
}

}  // namespace

ItemPlacement place_item(const LayoutItem& item, std::uint32_t src_dpi) {
  return {position_px(item.x_in, src_dpi), position_px(item.y_in, src_dpi), size_px(item.width_in, src_dpi),
          size_px(item.height_in, src_dpi)};
}

IndexRange columns_on_strip(const ItemPlacement& placement, const StripBuffer& strip) {
  return clip(placement.x, placement.width, strip.width);
}

IndexRange rows_on_strip(const ItemPlacement& placement, const StripBuffer& strip) {
  return clip(placement.y - strip.y, placement.height, strip.height);
}

IndexRange rows_in_range(const ItemPlacement& placement, const IndexRange& sheet_rows) {
  return clip(placement.y - sheet_rows.begin, placement.height, sheet_rows.size());
}

ItemGrid make_item_grid(const ImageMeta& meta, bool rotated, const ItemPlacement& placement) {
  return {rotated ? meta.height : meta.width, rotated ? meta.width : meta.height, placement.width,
          placement.height};
}

ItemTraits make_item_traits(const ImageMeta& meta, const ItemGrid& grid, const Resampling& resampling,
                            bool binary_coverage) {
  const bool shrinks = grid.dest_width < grid.source_width || grid.dest_height < grid.source_height;
  const bool grows = grid.dest_width > grid.source_width || grid.dest_height > grid.source_height;
  ItemTraits traits;
  traits.is_rgb = meta.is_rgb || !meta.is_cmyk;
  traits.has_white = meta.role_index(ChannelRole::white) >= 0;
  traits.alpha_active = meta.has_alpha && is_channel_of(meta, meta.role_index(ChannelRole::alpha));
  traits.white_is_alpha = traits.is_rgb && !meta.has_alpha && traits.has_white;
  traits.color_hard = resampling.color_hard();
  traits.linear_light = traits.is_rgb && resampling.color_resampling_linear_light && !resampling.color_hard();
  traits.box = traits.has_white && shrinks;
  traits.hard = grows && resampling.white_hard() && binary_coverage;
  return traits;
}

IndexRange source_rows_needed(const ItemGrid& grid, bool box, const IndexRange& rows) {
  if (rows.empty() || grid.source_height == 0) return {};
  const std::uint32_t top = rows.begin;
  const std::uint32_t bottom = rows.end - 1;
  IndexRange needed;  // both maps rise with the row
  if (box) {
    needed = {map_axis_box(top, grid.dest_height, grid.source_height).start,
              map_axis_box(bottom, grid.dest_height, grid.source_height).end};
  } else {
    needed = {map_axis_bilinear(top, grid.dest_height, grid.source_height).lo,
              map_axis_bilinear(bottom, grid.dest_height, grid.source_height).hi + 1};
  }
  needed.end = std::min(needed.end, grid.source_height);
  return needed;
}

SourceView view_image(const LoadedImage& image, bool rotated, const ItemTraits& traits) {
  const SampleBlock pixels{image.pixels, image.width, 0, image.height, image.channel_count, rotated};
  const SampleBlock coverage{image.white_coverage, image.width, 0, image.height, 1, rotated};
  const int alpha = image.role_index(ChannelRole::alpha);
  const bool all_full = alpha < 0 && image.role_index(ChannelRole::white) < 0;
  return {view_color(image, pixels, traits.is_rgb), view_channel(pixels, alpha, 0),
          view_channel(coverage, all_full ? -1 : 0, kFullWhite)};
}

SourceView view_rows(const ImageMeta& meta, const std::vector<std::uint8_t>& buffer, const IndexRange& rows,
                     const ItemTraits& traits) {
  const SampleBlock block{buffer, meta.width, rows.begin, rows.size(), meta.channel_count, false};
  return {view_color(meta, block, traits.is_rgb), view_channel(block, meta.role_index(ChannelRole::alpha), 0),
          view_coverage_of_samples(meta, block)};
}

RowRasterizer::RowRasterizer(const SourceView& source, const ItemTraits& traits, const ItemGrid& grid,
                             const ColumnMap& columns, const RowColor& color)
    : traits_(traits),
      grid_(grid),
      columns_(columns),
      row_color_(color),
      // Without a White channel the coverage is the alpha channel itself: one sampling serves both.
      alpha_source_(traits.alpha_active     ? traits.has_white ? AlphaSource::channel : AlphaSource::coverage
                    : traits.white_is_alpha ? AlphaSource::coverage
                                            : AlphaSource::opaque),
      has_coverage_(source.coverage.exists()),
      white_sampler_(source.coverage, columns),
      alpha_sampler_(source.alpha, columns),
      color_sampler_(source.color, columns, traits.linear_light),
      white_(columns.size()),
      alpha_(columns.size()),
      color_(std::size_t{columns.size()} * color_sampler_.channel_count() + ColorSampler::kSlack) {
  const bool converts = traits.is_rgb || color.converter_ready;
  if (converts) cmyk_.resize(std::size_t{columns.size()} * inks_.size());
  for (auto& ink : inks_) ink.resize(columns.size());
}

void RowRasterizer::raster_rows(const IndexRange& rows, const PixelTarget& target) {
  if (columns_.size() == 0) return;
  for (std::uint32_t row = rows.begin; row < rows.end; ++row) raster_row(row, target, row - rows.begin);
}

void RowRasterizer::raster_row(std::uint32_t row, const PixelTarget& target, std::uint32_t y) {
  const AxisSample source_row = map_axis_bilinear(row, grid_.dest_height, grid_.source_height);
  sample_white(row, source_row);
  const std::uint8_t* alpha = sample_alpha(source_row);
  find_runs_of(alpha);
  if (runs_.empty()) return;
  const std::size_t pixels = sample_color(source_row);
  write_runs(convert_to_cmyk(pixels), alpha, target, y);
}

void RowRasterizer::sample_white(std::uint32_t row, const AxisSample& source_row) {
  if (!has_coverage_) {
    std::fill(white_.begin(), white_.end(), kFullWhite);
  } else if (traits_.box) {
    white_sampler_.box(map_axis_box(row, grid_.dest_height, grid_.source_height), white_.data());
  } else if (traits_.hard) {
    white_sampler_.nearest(source_row.nearest(), white_.data());
  } else {
    white_sampler_.bilinear(source_row, white_.data());
  }
}

/// Null where every pixel is opaque.
const std::uint8_t* RowRasterizer::sample_alpha(const AxisSample& source_row) {
  if (alpha_source_ == AlphaSource::opaque) return nullptr;
  if (alpha_source_ == AlphaSource::coverage) return white_.data();
  alpha_sampler_.bilinear(source_row, alpha_.data());
  return alpha_.data();
}

void RowRasterizer::find_runs_of(const std::uint8_t* alpha) {
  if (alpha == nullptr) {
    runs_.assign(1, {0, columns_.size(), false});
    pixels_written_ += columns_.size();
  } else {
    pixels_written_ += find_runs(alpha, columns_.size(), runs_);
  }
}

/// Fills `color_` with the pixels of the runs and returns their number.
std::size_t RowRasterizer::sample_color(const AxisSample& source_row) {
  std::size_t pixels = 0;
  for (const PixelRun& run : runs_) {
    std::uint8_t* out = color_.data() + pixels * color_sampler_.channel_count();
    if (traits_.color_hard) {
      color_sampler_.nearest(source_row.nearest(), run.begin, run.end, out);
    } else {
      color_sampler_.bilinear(source_row, run.begin, run.end, out);
    }
    pixels += run.size();
  }
  return pixels;
}

const std::uint8_t* RowRasterizer::convert_to_cmyk(std::size_t pixels) {
  if (!traits_.is_rgb && !row_color_.converter_ready) return color_.data();
  const std::uint64_t start = row_color_.timed ? platform::monotonic_nanoseconds() : 0;
  if (!traits_.is_rgb) {
    row_color_.conversion->convert_cmyk_row(row_color_.worker, color_.data(), cmyk_.data(), pixels);
  } else if (row_color_.converter_ready) {
    row_color_.conversion->convert_rgb_row(row_color_.worker, color_.data(), cmyk_.data(), pixels);
  } else {
    rgb_to_cmyk_simple(color_.data(), cmyk_.data(), pixels);
  }
  if (row_color_.timed) conversion_nanoseconds_ += platform::monotonic_nanoseconds() - start;
  return cmyk_.data();
}

void RowRasterizer::write_runs(const std::uint8_t* cmyk, const std::uint8_t* alpha, const PixelTarget& target,
                               std::uint32_t y) {
  const InkRows rows{{inks_[0].data(), inks_[1].data(), inks_[2].data(), inks_[3].data(), white_.data()}};
  for (const PixelRun& run : runs_) {
    const std::size_t size = run.size();
    split_cmyk(cmyk, size, inks_[0].data() + run.begin, inks_[1].data() + run.begin,
               inks_[2].data() + run.begin, inks_[3].data() + run.begin);
    cmyk += size * inks_.size();
    if (alpha != nullptr && !all_opaque(alpha + run.begin, size)) {
      for (auto& ink : inks_) premultiply(alpha + run.begin, size, ink.data() + run.begin);
      if (traits_.has_white && traits_.alpha_active)
        premultiply(alpha + run.begin, size, white_.data() + run.begin);
    }
    has_ink_ = has_ink_ || any_ink(run, alpha, rows);
    copy_run(run, alpha, rows, target, y);
  }
}

PixelTarget strip_target(StripBuffer& strip, const ItemPlacement& placement, const IndexRange& columns,
                         const IndexRange& rows, bool explicit_white) {
  const std::size_t column = static_cast<std::size_t>(placement.x + columns.begin);
  const std::size_t row = static_cast<std::size_t>(placement.y + rows.begin - strip.y);
  const auto part = [&](const MutablePlaneView& plane) {
    return plane.part(column, row, columns.size(), rows.size());
  };
  PixelTarget target;
  for (std::size_t ink = 0; ink < target.inks.size(); ++ink) target.inks[ink] = part(strip.ink(ink));
  target.mark = part(strip.explicit_view());
  target.mark_value = explicit_white ? 255 : 0;
  return target;
}

PreparedItemRaster::PreparedItemRaster(std::uint32_t width_px, std::uint32_t height_px, bool white)
    : width(width_px), height(height_px), has_white(white) {
  const std::size_t pixels = std::size_t{width} * height;
  for (auto* plane : {&valid, &c, &m, &y, &k, &w}) plane->assign(pixels, 0);
}

PixelTarget PreparedItemRaster::target() {
  const auto view = [this](Plane& plane) { return MutablePlaneView(plane.data(), width, height); };
  return {{view(c), view(m), view(y), view(k), view(w)}, view(valid), 1};
}

bool blit_prepared_raster(const PreparedItemRaster& raster, const ItemPlacement& placement,
                          StripBuffer& strip, const IndexRange& rows, std::uint64_t& written) {
  if (raster.width == 0 || raster.height == 0) return false;
  if (raster.valid.size() / raster.width < raster.height) return false;
  for (const auto* plane : {&raster.c, &raster.m, &raster.y, &raster.k, &raster.w})
    if (plane->size() != raster.valid.size()) return false;

  const IndexRange on_strip = rows_on_strip({placement.x, placement.y, raster.width, raster.height}, strip);
  const IndexRange copied{std::max(rows.begin, on_strip.begin), std::min(rows.end, on_strip.end)};
  const IndexRange columns = columns_on_strip({placement.x, placement.y, raster.width, raster.height}, strip);
  if (copied.empty() || columns.empty()) return true;

  const PixelTarget target = strip_target(strip, placement, columns, copied, raster.has_white);
  const auto part = [&](const Plane& plane) {
    return PlaneView(plane.data(), raster.width, raster.height)
        .part(columns.begin, copied.begin, columns.size(), copied.size());
  };
  const PlaneView valid = part(raster.valid);
  const PlaneView c = part(raster.c), m = part(raster.m), y = part(raster.y), k = part(raster.k),
                  w = part(raster.w);
  std::vector<PixelRun> runs;
  for (std::uint32_t row = 0; row < copied.size(); ++row) {
    const InkRows inks{{c.row(row), m.row(row), y.row(row), k.row(row), w.row(row)}};
    written += find_runs(valid.row(row), columns.size(), runs);
    for (const PixelRun& run : runs) copy_run(run, valid.row(row), inks, target, row);
  }
  return true;
}

}  // namespace nvo
