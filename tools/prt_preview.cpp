#include "tools/prt_preview.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "core/platform/paths.h"
#include "tools/png_writer.h"
#include "tools/prt_slots.h"

namespace nvo {
namespace {

constexpr double kDefaultLongerSide = 1600;
constexpr double kMaxSide = 100'000;          // pixels
constexpr std::uint32_t kMaxRows = 1u << 30;  // three times as much fits the column sums
constexpr std::uint32_t kMaxLevel = 3;

/// The row cycles of a file from its end to its start, which is the image from top to bottom.
class RowsFromTop {
 public:
  explicit RowsFromTop(PrtReader& reader) : reader_(reader) {}

  /// The row cycle of a device row. Rows are asked for in ascending order, each as often as needed.
  const std::uint8_t* row(std::uint32_t device_row) {
    const std::uint32_t cycle = reader_.header().height - 1 - device_row;
    if (cycle < first_ || cycle >= first_ + count_) {
      count_ = std::min(reader_.block_cycles(), cycle + 1);
      first_ = cycle + 1 - count_;
      reader_.read_cycles(first_, count_, block_);
    }
    return block_.data() + std::size_t{cycle - first_} * reader_.cycle_len();
  }

 private:
  PrtReader& reader_;
  std::vector<std::uint8_t> block_;
  std::uint32_t first_ = 0, count_ = 0;
};

/// Weighted sums of drop levels, by dot column, of the rows that meet one row of pixels.
class ColumnSums {
 public:
  ColumnSums(std::uint32_t left, std::uint32_t columns)
      : first_byte_(left / kDotsPerByte),
        skipped_dots_(left % kDotsPerByte),
        columns_(columns),
        unweighted_(skipped_dots_ + columns),
        weighted_(skipped_dots_ + columns) {}

  void add_row(const std::uint8_t* slot, std::uint32_t weight) {
    if (weight != weight_ || pending_rows_ == kMaxPendingRows) fold();
    weight_ = weight;
    ++pending_rows_;
    const std::uint32_t dots = skipped_dots_ + columns_;
    for (std::uint32_t x = 0; x < dots; x += kPieceDots)
      add_piece(slot + first_byte_ + x / kDotsPerByte, std::min(kPieceDots, dots - x),
                unweighted_.data() + x);
  }

  /// The mean level of each of `pixels.size()` equal parts of the columns, as a share of the highest level,
  /// for rows of `total_weight` together. Starts the next row of pixels.
  void take_amount(std::uint64_t total_weight, std::vector<float>& pixels) {
    fold();
    // Both grids in units of 1 / (pixels x columns): a dot is `unit` wide, a pixel `columns_`.
    const std::uint64_t unit = pixels.size();
    const std::uint32_t* sums = weighted_.data() + skipped_dots_;
    const double full = static_cast<double>(total_weight) * static_cast<double>(columns_) * kMaxLevel;
    for (std::uint64_t i = 0; i < pixels.size(); ++i) {
      const std::uint64_t begin = i * columns_, end = begin + columns_;
      std::uint64_t sum = 0;
      for (std::uint64_t dot = begin / unit; dot * unit < end; ++dot)
        sum += sums[dot] * (std::min((dot + 1) * unit, end) - std::max(dot * unit, begin));
      pixels[i] = static_cast<float>(static_cast<double>(sum) / full);
    }
    std::fill(weighted_.begin(), weighted_.end(), 0u);
  }

 private:
  static constexpr std::uint32_t kMaxPendingRows = 255 / kMaxLevel;  // a byte's worth of levels
  static constexpr std::uint32_t kPieceDots = 256;

  static void add_piece(const std::uint8_t* packed, std::uint32_t dots, std::uint8_t* sums) {
    if (std::all_of(packed, packed + packed_dots_bytes(dots), [](std::uint8_t byte) { return byte == 0; }))
      return;
    std::array<std::uint8_t, kPieceDots> levels;
    unpack_row(packed, dots, levels.data());
    for (std::uint32_t x = 0; x < dots; ++x) sums[x] = static_cast<std::uint8_t>(sums[x] + levels[x]);
  }

  void fold() {
    if (pending_rows_ == 0) return;
    for (std::size_t x = 0; x < weighted_.size(); ++x) weighted_[x] += unweighted_[x] * weight_;
    std::fill(unweighted_.begin(), unweighted_.end(), std::uint8_t{0});
    pending_rows_ = 0;
  }

  std::uint32_t first_byte_, skipped_dots_, columns_;
  std::vector<std::uint8_t> unweighted_;  ///< of rows of one weight
  std::vector<std::uint32_t> weighted_;
  std::uint32_t weight_ = 0, pending_rows_ = 0;
};

/// One ink on its way to the picture.
struct InkLayer {
  std::uint32_t slot;
  std::uint32_t channel;  ///< `ChannelCode`
  ColumnSums sums;
  std::vector<float> amount;  ///< of a row of pixels
};

std::vector<InkLayer> make_layers(const PreviewOptions& options, const PreviewPlan& plan) {
  std::vector<InkLayer> layers;
  for (std::uint32_t ink = 0; ink < kChannelCount; ++ink) {
    if (options.channel && *options.channel != ink) continue;
    const auto slot = std::find(options.slot_map.begin(), options.slot_map.end(), ink);
    if (slot == options.slot_map.end()) continue;
    layers.push_back({static_cast<std::uint32_t>(slot - options.slot_map.begin()), ink,
                      ColumnSums(plan.left, plan.columns), std::vector<float>(plan.width)});
  }
  if (options.channel && layers.empty())
    throw std::invalid_argument(std::string("no slot carries the ink ") + ink_letter(*options.channel));
  return layers;
}

/// A colour ink by itself is drawn as its drops, without the film and the tone that it would print.
bool is_drawn_as_drops(const PreviewOptions& options) {
  return options.channel && *options.channel != kChannelW;
}

void draw_row(const std::vector<InkLayer>& layers, const InkModel& model, bool as_drops,
              std::vector<std::uint8_t>& rgb) {
  for (std::size_t x = 0; x < rgb.size() / 3; ++x) {
    InkAmount amount{};
    for (const InkLayer& layer : layers) amount[layer.channel] = layer.amount[x];
    const Rgb8 color = as_drops ? model.grey(layers.front().amount[x]) : model.color(amount);
    rgb[3 * x] = color.r;
    rgb[3 * x + 1] = color.g;
    rgb[3 * x + 2] = color.b;
  }
}

struct DotSpan {
  std::uint32_t begin, count;
};

/// A span of inches on a device axis, in whole dots, at least one.
DotSpan cut_axis(double begin_in, double size_in, std::uint32_t dpi, std::uint32_t dots, const char* axis) {
  const double first = std::round(begin_in * dpi), last = std::round((begin_in + size_in) * dpi);
  if (!(size_in > 0) || !(begin_in >= 0) || !(first < dots))
    throw std::invalid_argument(std::string("the crop's ") + axis +
                                " lies outside of the image, which ends at " +
                                std::to_string(static_cast<double>(dots) / dpi) + " in");
  const auto begin = static_cast<std::uint32_t>(first);
  return {begin,
          static_cast<std::uint32_t>(std::clamp(last - first, 1.0, static_cast<double>(dots - begin)))};
}

std::uint32_t pixels_of(double size_in, double dpi) {
  const double pixels = std::round(size_in * dpi);
  if (!(pixels <= kMaxSide))
    throw std::invalid_argument("the picture would have a side above " +
                                std::to_string(std::lround(kMaxSide)) + " pixels; crop, or lower the dpi");
  return std::max(static_cast<std::uint32_t>(pixels), 1u);
}

/// A picture may replace a picture, but nothing that was not made to be replaced.
void require_replaceable(const std::string& picture_path) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::file_type type = fs::symlink_status(platform::to_path(picture_path), error).type();
  if (type == fs::file_type::not_found) return;
  if (type == fs::file_type::none) throw std::runtime_error(picture_path + ": " + error.message());
  if (type != fs::file_type::regular)
    throw std::invalid_argument(picture_path + ": not a regular file, the picture does not replace it");
  if (begins_as_print_file(picture_path))
    throw std::invalid_argument(picture_path + ": the picture would replace the print file");
}

}  // namespace

PreviewPlan plan_preview(const PrtReader& reader, const PreviewOptions& options) {
  const PrtHeader& header = reader.header();
  if (header.x_dpi == 0 || header.y_dpi == 0)
    throw std::runtime_error(reader.path() + ": header: a resolution of " + std::to_string(header.x_dpi) +
                             " x " + std::to_string(header.y_dpi) + " dpi gives no picture");
  if (header.height > kMaxRows)
    throw std::runtime_error(reader.path() + ": header: " + std::to_string(header.height) +
                             " rows, a preview takes at most " + std::to_string(kMaxRows));
  if (options.dpi && !(*options.dpi > 0)) throw std::invalid_argument("the dpi must be above 0");

  PreviewPlan plan;
  plan.columns = header.width;
  plan.rows = header.height;
  if (options.crop) {
    const InchRect& crop = *options.crop;
    const DotSpan columns = cut_axis(crop.x, crop.width, header.x_dpi, header.width, "width");
    const DotSpan rows = cut_axis(crop.y, crop.height, header.y_dpi, header.height, "height");
    plan.left = columns.begin, plan.columns = columns.count;
    plan.top = rows.begin, plan.rows = rows.count;
  }
  const double width_in = static_cast<double>(plan.columns) / header.x_dpi;
  const double height_in = static_cast<double>(plan.rows) / header.y_dpi;
  plan.dpi = options.dpi.value_or(kDefaultLongerSide / std::max(width_in, height_in));
  plan.width = pixels_of(width_in, plan.dpi);
  plan.height = pixels_of(height_in, plan.dpi);
  return plan;
}

void write_preview(PrtReader& reader, const PreviewOptions& options, const std::string& picture_path) {
  require_replaceable(picture_path);
  const PreviewPlan plan = plan_preview(reader, options);
  std::vector<InkLayer> layers = make_layers(options, plan);
  const bool as_drops = is_drawn_as_drops(options);
  const InkModel model(options.film);
  RowsFromTop rows(reader);
  PngWriter png(picture_path, plan.width, plan.height, plan.dpi);
  std::vector<std::uint8_t> rgb(std::size_t{plan.width} * 3);

  // Both grids in units of 1 / (height x rows): a dot row is `height` high, a row of pixels `rows`.
  for (std::uint64_t y = 0; y < plan.height; ++y) {
    const std::uint64_t begin = y * plan.rows, end = begin + plan.rows;
    for (std::uint64_t row = begin / plan.height; row * plan.height < end; ++row) {
      const std::uint64_t shared =
          std::min((row + 1) * plan.height, end) - std::max(row * plan.height, begin);
      const std::uint8_t* cycle = rows.row(plan.top + static_cast<std::uint32_t>(row));
      for (InkLayer& layer : layers)
        layer.sums.add_row(cycle + std::size_t{layer.slot} * reader.header().stride,
                           static_cast<std::uint32_t>(shared));
    }
    for (InkLayer& layer : layers) layer.sums.take_amount(plan.rows, layer.amount);
    draw_row(layers, model, as_drops, rgb);
    png.write_row(rgb.data());
  }
  png.finish();
}

}  // namespace nvo
