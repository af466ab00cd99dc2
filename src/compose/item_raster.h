#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "compose/color_conversion.h"
#include "compose/ink_rows.h"
#include "compose/row_sampler.h"
#include "compose/strip_buffer.h"
#include "config/print_settings.h"
#include "image/image_types.h"
#include "plan/rip_job_options.h"

namespace nvo {

/// An item's rectangle on the sheet, in pixels of the source grid; at least one pixel wide and high.
struct ItemPlacement {
  std::int64_t x = 0, y = 0;
  std::uint32_t width = 1, height = 1;

  std::uint64_t area() const { return std::uint64_t{width} * height; }
};
ItemPlacement place_item(const LayoutItem& item, std::uint32_t src_dpi);

/// Numbers [begin, end); empty unless `begin` < `end`.
struct IndexRange {
  std::uint32_t begin = 0, end = 0;

  bool empty() const { return begin >= end; }
  std::uint32_t size() const { return empty() ? 0 : end - begin; }
};
/// The columns of a placed item that fall on a strip, and the rows.
IndexRange columns_on_strip(const ItemPlacement& placement, const StripBuffer& strip);
IndexRange rows_on_strip(const ItemPlacement& placement, const StripBuffer& strip);
/// The same for rows of the sheet.
IndexRange rows_in_range(const ItemPlacement& placement, const IndexRange& sheet_rows);

/// Sizes that resampling maps between. The source's are those of the image as placed: swapped for a turned
/// item.
struct ItemGrid {
  std::uint32_t source_width = 0, source_height = 0;
  std::uint32_t dest_width = 0, dest_height = 0;
};
ItemGrid make_item_grid(const ImageMeta& meta, bool rotated, const ItemPlacement& placement);

/// How the pixels of one item are obtained.
struct ItemTraits {
  bool is_rgb = false;
  bool has_white = false;       ///< a White channel, whose coverage the sheet keeps as explicit white
  bool alpha_active = false;    ///< an alpha channel, which inks are multiplied by
  bool white_is_alpha = false;  ///< RGB whose only transparency is its White channel
  bool color_hard = false;      ///< colour from the nearest sample
  bool linear_light = false;    ///< colour mixed as light
  bool box = false;             ///< white as the mean over the box of a pixel
  bool hard = false;            ///< white, and transparency that follows it, from the nearest sample
};
/// `binary_coverage` tells whether the coverage may be scaled hard.
ItemTraits make_item_traits(const ImageMeta& meta, const ItemGrid& grid, const Resampling& resampling,
                            bool binary_coverage);

/// Source rows that destination rows `rows` are made from; empty where there are none.
IndexRange source_rows_needed(const ItemGrid& grid, bool box, const IndexRange& rows);

/// The channels of a source in memory. They point into the image or buffer that the view was made from.
struct SourceView {
  std::vector<ChannelView> color;  ///< R, G, B or C, M, Y, K; a channel that the image lacks reads 0
  ChannelView alpha;               ///< reads 0 where there are no samples
  ChannelView coverage;            ///< 255 is full white; reads 255 where there are no samples
};
SourceView view_image(const LoadedImage& image, bool rotated, const ItemTraits& traits);
/// A band of source rows, interleaved; `buffer` begins with row `rows.begin`.
SourceView view_rows(const ImageMeta& meta, const std::vector<std::uint8_t>& buffer, const IndexRange& rows,
                     const ItemTraits& traits);

/// How sampled rows become CMYK.
struct RowColor {
  ColorConversion* conversion = nullptr;
  WorkerIcc* worker = nullptr;
  bool converter_ready = false;  ///< else RGB takes the formula and CMYK stays
  bool timed = false;
};

/// Turns destination rows of one item into five inks: samples white, alpha and colour, converts, multiplies
/// by alpha, writes. Pixels of alpha 0 leave the target as it is. For one thread; source and columns may be
/// shared.
class RowRasterizer {
 public:
  RowRasterizer(const SourceView& source, const ItemTraits& traits, const ItemGrid& grid,
                const ColumnMap& columns, const RowColor& color);

  /// Rows of the item into `target`, whose first row and column are the first of them and the first mapped
  /// column.
  void raster_rows(const IndexRange& rows, const PixelTarget& target);

  std::uint64_t pixels_written() const { return pixels_written_; }
  bool has_ink() const { return has_ink_; }  ///< of any kind, in the pixels written
  std::uint64_t conversion_nanoseconds() const { return conversion_nanoseconds_; }

 private:
  enum class AlphaSource { opaque, channel, coverage };

  void raster_row(std::uint32_t row, const PixelTarget& target, std::uint32_t y);
  void sample_white(std::uint32_t row, const AxisSample& source_row);
  const std::uint8_t* sample_alpha(const AxisSample& source_row);
  void find_runs_of(const std::uint8_t* alpha);
  std::size_t sample_color(const AxisSample& source_row);
  const std::uint8_t* convert_to_cmyk(std::size_t pixels);
  void write_runs(const std::uint8_t* cmyk, const std::uint8_t* alpha, const PixelTarget& target,
                  std::uint32_t y);

  const ItemTraits traits_;
  const ItemGrid grid_;
  const ColumnMap& columns_;
  const RowColor row_color_;
  const AlphaSource alpha_source_;
  const bool has_coverage_;
  ChannelSampler white_sampler_, alpha_sampler_;
  ColorSampler color_sampler_;
  std::vector<std::uint8_t> white_, alpha_;  ///< by column
  std::vector<std::uint8_t> color_, cmyk_;   ///< pixels of the runs, one behind the other
  std::array<std::vector<std::uint8_t>, 4> inks_;
  std::vector<PixelRun> runs_;
  std::uint64_t pixels_written_ = 0, conversion_nanoseconds_ = 0;
  bool has_ink_ = false;
};

/// The pixels of a strip that columns `columns` and rows `rows` of an item cover.
PixelTarget strip_target(StripBuffer& strip, const ItemPlacement& placement, const IndexRange& columns,
                         const IndexRange& rows, bool explicit_white);

/// A whole item, ready to be copied into strips. All vectors hold `width` x `height` bytes; immutable once
/// cached.
struct PreparedItemRaster {
  std::uint32_t width = 0, height = 0;  ///< as placed
  bool has_white = false;
  bool has_ink = false;  ///< any plane has, once the raster is filled
  Plane valid;           ///< 1 where the pixel is to be written
  Plane c, m, y, k, w;

  PreparedItemRaster() = default;
  PreparedItemRaster(std::uint32_t width_px, std::uint32_t height_px, bool white);
  PixelTarget target();
};

/// Copies item rows `rows` of a raster into the strip. False, with nothing copied, when the raster's planes
/// don't fit its size. Adds the pixels written to `written`.
bool blit_prepared_raster(const PreparedItemRaster& raster, const ItemPlacement& placement,
                          StripBuffer& strip, const IndexRange& rows, std::uint64_t& written);

}  // namespace nvo
