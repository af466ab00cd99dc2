#include "compose/item_composer.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <utility>

#include "compose/white_underbase.h"
#include "core/checked.h"
#include "core/env_override.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/environment.h"
#include "core/text.h"
#include "core/threads/parallel.h"
#include "image/image_format.h"
#include "image/wic_image.h"

namespace nvo {
namespace {

/// Sources from this size on are read by rows, a strip's worth at a time.
constexpr std::uint64_t kLargeSourcePixels = 0x400000;
/// Compressed rasters stay whole in memory up to this size, since their rows cannot be read without decoding.
constexpr std::uint64_t kMaxWholeRasterBytes = 0x30000000;
/// A prepared raster costs six bytes a pixel.
constexpr std::uint64_t kMaxPreparedPixels = 0x3000000;
constexpr std::uint32_t kMinRowsPerThread = 16;

bool is_large(const ImageMeta& meta) {
  const FormatTraits& format = format_traits(meta.kind);
  if (format.keeps_rows) return true;
  const std::uint64_t pixels = std::uint64_t{meta.width} * meta.height;
  if (format.decodes_in_order) {
    const auto bytes = checked_product(pixels, std::max<std::uint64_t>(meta.channel_count, 1));
    if (bytes && *bytes <= kMaxWholeRasterBytes) return false;
  }
  return pixels >= kLargeSourcePixels;
}

bool environment_says_yes(const char* name) {
  const std::string word = ascii_lower(platform::environment(name).value_or(""));
  return !word.empty() && word != "0" && word != "false" && word != "off" && word != "no";
}

/// The switches that once steered how a source is read are known by name only: a job's output never depends
/// on them. These are the ones that are set.
std::vector<const char*> find_inert_switches() {
  std::vector<const char*> set;
  for (const char* name : {"NVO_RIP_FORCE_FULL_LOAD_IMAGES", "NVO_RIP_FORCE_LOW_MEMORY_IMAGES"})
    if (environment_says_yes(name)) set.push_back(name);
  return set;
}

void log_small_source(const LayoutItem& item, const ImageMeta& meta) {
  log_debug("StripCompositor: ", format_traits(meta.kind).name, " source ", meta.width, "x", meta.height,
            " below large-source threshold; using full-load path for '", item.path, "'");
}
void log_row_path(const LayoutItem& item, const ImageMeta& meta, const IndexRange& rows) {
  log_debug("StripCompositor: ", format_traits(meta.kind).name, " low-memory row path active for '",
            item.path, "' y=", rows.begin, "..", rows.end - 1);
}

/// Says why an item isn't read by rows.
void log_full_load_reason(const LayoutItem& item, const RasterSource& source) {
  const ImageMeta& meta = source.metadata();
  const char* type = format_traits(meta.kind).name;
  if (!source.supports_row_reads()) {
    log_debug("StripCompositor: ", type, " low-memory unavailable for '", item.path,
              "': ", source.read_strategy());
  } else if (item.rotated) {
    log_debug("StripCompositor: ", type, " low-memory fallback for rotated item '", item.path,
              "': rotated mapping currently uses full-load path");
  } else {
    log_small_source(item, meta);
  }
}

/// A page says itself what is white; there nothing can be the wrong way round.
void look_at_white(const ImageMeta& meta, const SourceView& view, const ItemTraits& traits,
                   const IndexRange& rows, std::uint32_t width, ItemOutcome& outcome) {
  if (traits.has_white && !format_traits(meta.kind).is_page)
    outcome.white += tally_white(view, traits, rows, width);
}

std::string key_part(const char* name, const std::string& value) {
  return std::string("|") + name + "=" + value;
}
std::string key_part(const char* name, bool value) {
  return key_part(name, std::string(value ? "1" : "0"));
}
std::string key_part(const char* name, std::int64_t value) {
  return key_part(name, std::to_string(value));
}
std::string key_part(const char* name, ResamplingMode mode) {
  return key_part(name, std::string(mode == ResamplingMode::hard ? "hard" : "smooth"));
}

}  // namespace

ItemComposer::ItemComposer(const StripCompositorConfig& config)
    : config_(config), inert_switches_(find_inert_switches()), caches_(config.threads) {}

void ItemComposer::set_icc_settings(const IccSettings& settings) {
  conversion_.reset(settings);
  worker_icc_.clear();
  row_icc_.clear();
}

void ItemComposer::require_workers(std::size_t count) {
  while (worker_icc_.size() < count) worker_icc_.push_back(std::make_unique<WorkerIcc>());
}

void ItemComposer::warn_of_inert_switches() const {
  for (const char* name : inert_switches_) warn_ignored_override(name);
}

ItemOutcome ItemComposer::compose_item(const LayoutItem& item, StripBuffer& strip, WorkerIcc* worker,
                                       const IndexRange& next) {
  ItemOutcome outcome;
  const ItemPlacement placement = place_item(item, config_.src_dpi);
  const IndexRange rows = rows_on_strip(placement, strip);
  if (rows.empty()) return outcome;
  outcome.on_sheet = !columns_on_strip(placement, strip).empty();
  counters_.add(&CompositorCounters::items_blitted, 1);

  const Job job{item, strip, worker, placement, rows, make_content_signature(item.path), outcome};
  if (in_order_) {
    compose_in_order(job, rows_in_range(placement, next));
    return outcome;
  }
  if (auto source = open_source(job)) {
    warn_of_inert_switches();
    if (compose_from_source(job, *source)) return outcome;
    // A whole image and a row source are never both kept for one file.
    caches_.forget_source(job.signature, source);
  }
  compose_from_image(job);
  return outcome;
}

std::optional<ImageMeta> ItemComposer::item_meta(const LayoutItem& item) {
  const CounterBook::Timer timer(counters_, &CompositorCounters::source_open_ns);
  try {
    const auto source = caches_.open_raster_source(make_content_signature(item.path), item.path);
    const std::lock_guard alone(source->use);
    return source->reader->metadata();
  } catch (const std::exception&) {
    rethrow_machine_failure();
    return std::nullopt;
  }
}

void ItemComposer::take_in_order(bool in_order) {
  caches_.clear();
  in_order_.reset();
  if (in_order) in_order_.emplace();
}

void ItemComposer::finish_in_order() {
  // Rows below those that a large image is read for never tell of damage.
  if (in_order_ && in_order_->stream && !in_order_->is_large) in_order_->stream->finish();
}

/// Writes what the other ways write, with their counts and lines. Where one of those would have something to
/// warn of, `RowStreamBroken` is thrown instead.
void ItemComposer::compose_in_order(const Job& job, const IndexRange& next_rows) {
  if (!in_order_->stream) open_in_order(job);
  ArtInOrder& art = *in_order_;
  if (!job.signature.valid || job.signature.key != art.key) throw RowStreamBroken("the file has changed");
  const ImageMeta& meta = art.stream->metadata();
  const ItemGrid grid = make_item_grid(meta, false, job.placement);
  const bool box = make_item_traits(meta, grid, config_, false).box;
  const IndexRange rows = source_rows_needed(grid, box, job.rows);
  const IndexRange next = source_rows_needed(grid, box, next_rows);
  if (art.is_large)
    log_row_path(job.item, meta, rows);
  else
    log_small_source(job.item, meta);
  const auto buffer = row_buffers_.take();
  {
    const CounterBook::Timer timer(
        counters_, art.is_large ? &CompositorCounters::source_read_ns : &CompositorCounters::image_load_ns);
    art.stream->read({rows.begin, rows.end}, {next.begin, next.end}, *buffer);
  }
  counters_.add(art.is_large ? &CompositorCounters::lowmem_items : &CompositorCounters::full_load_items, 1);

  const Plan plan = make_plan(job, meta);
  const bool once = !art.is_large && !raster_key(job).empty();
  if (!once || !art.classified) classify_white_coverage(job, nullptr, nullptr);
  art.classified = true;
  const SourceView view = view_rows(meta, *buffer, rows, plan.traits);
  look_at_white(meta, view, plan.traits, rows, grid.source_width, job.outcome);
  raster_onto_strip(job, plan, view);
}

void ItemComposer::open_in_order(const Job& job) try {
  const CounterBook::Timer timer(counters_, &CompositorCounters::source_open_ns);
  caches_.clear();  // of the source that has told the metadata
  warn_of_inert_switches();
  const HeldLog unheard;
  const ImageFormat* format = find_image_format(lower_extension(job.item.path));
  if (format && format->open_stream) in_order_->stream = format->open_stream(job.item.path);
  if (!in_order_->stream) throw RowStreamBroken("its rows don't come in order");
  in_order_->key = job.signature.key;
  in_order_->is_large = is_large(in_order_->stream->metadata());
} catch (const std::exception& failure) {
  rethrow_machine_failure();
  throw RowStreamBroken(failure.what());
}

/// Null when the file cannot be opened.
std::shared_ptr<SharedSource> ItemComposer::open_source(const Job& job) {
  const CounterBook::Timer timer(counters_, &CompositorCounters::source_open_ns);
  try {
    return caches_.open_raster_source(job.signature, job.item.path);
  } catch (const std::exception& error) {
    rethrow_machine_failure();
    log_warn("StripCompositor: cannot open raster source: ", job.item.path, ": ", error.what());
    return nullptr;
  }
}

/// False, with nothing written, when the item has to be made from the whole image.
bool ItemComposer::compose_from_source(const Job& job, SharedSource& source) {
  std::unique_lock alone(source.use);
  RasterSource& reader = *source.reader;
  const ImageMeta& meta = reader.metadata();
  if (!reader.supports_row_reads() || job.item.rotated || !is_large(meta)) {
    log_full_load_reason(job.item, reader);
    return false;
  }
  if (meta.width == 0 || meta.height == 0 || meta.channel_count == 0) return false;

  Plan plan = make_plan(job, meta);
  const IndexRange source_rows = source_rows_needed(plan.grid, plan.traits.box, job.rows);
  if (source_rows.empty()) return false;
  const auto buffer = row_buffers_.take();
  if (!read_source_rows(job, reader, source_rows, *buffer)) return false;
  counters_.add(&CompositorCounters::lowmem_items, 1);
  const bool binary = classify_white_coverage(job, nullptr, &reader);
  plan.traits = make_item_traits(meta, plan.grid, config_, binary);
  alone.unlock();

  const SourceView view = view_rows(meta, *buffer, source_rows, plan.traits);
  look_at_white(meta, view, plan.traits, source_rows, plan.grid.source_width, job.outcome);
  raster_onto_strip(job, plan, view);
  return true;
}

bool ItemComposer::read_source_rows(const Job& job, RasterSource& source, const IndexRange& rows,
                                    std::vector<std::uint8_t>& buffer) {
  const char* type = format_traits(source.metadata().kind).name;
  log_row_path(job.item, source.metadata(), rows);
  const CounterBook::Timer timer(counters_, &CompositorCounters::source_read_ns);
  std::string error;
  if (source.read_rows(rows.begin, rows.size(), buffer, &error)) return true;
  log_warn("StripCompositor: ", type, " low-memory row read fallback for '", job.item.path,
           "': ", error.empty() ? "unknown row-read error" : error, " [", source.read_strategy(), "]");
  return false;
}

void ItemComposer::compose_from_image(const Job& job) {
  const std::string key = raster_key(job);
  auto raster = key.empty() ? nullptr : caches_.find_raster(key);
  std::shared_ptr<const LoadedImage> image;
  if (!raster) {
    image = load_item(job);
    if (!image) {
      job.outcome.failed_rows = {job.rows};
      return;
    }
  }
  counters_.add(&CompositorCounters::full_load_items, 1);
  if (!raster && !key.empty()) raster = prepare_item_raster(job, key, *image);

  std::uint64_t pixels = 0;
  if (raster && blit_prepared_raster(*raster, job.placement, job.strip, job.rows, pixels)) {
    count_painted(job, {pixels, raster->has_ink});
  } else if (image) {
    compose_direct(job, *image);
  }
}

/// Null when the file cannot be loaded.
std::shared_ptr<const LoadedImage> ItemComposer::load_item(const Job& job) {
  const CounterBook::Timer timer(counters_, &CompositorCounters::image_load_ns);
  try {
    return caches_.load_image_cached(job.signature, job.item.path);
  } catch (const std::exception& error) {
    rethrow_machine_failure();
    log_warn("StripCompositor: cannot open: ", job.item.path, ": ", error.what());
    const std::string reason = refusal_reason(job.item.path);
    job.outcome.failure = reason.empty() ? error.what() : reason;
    return nullptr;
  }
}

/// All that a prepared raster's pixels depend on; empty for an item that is to have none.
std::string ItemComposer::raster_key(const Job& job) const {
  if (!job.signature.valid || job.placement.area() > kMaxPreparedPixels) return {};
  const IccSettings& icc = conversion_.settings();
  return job.signature.key + key_part("w", std::int64_t{job.placement.width}) +
         key_part("h", std::int64_t{job.placement.height}) + key_part("rot", job.item.rotated) +
         key_part("icc", icc.enabled) + key_part("rgb", icc.input_rgb_profile) +
         key_part("cmyk", icc.input_cmyk_profile) + key_part("out", icc.output_profile) +
         key_part("intent", std::int64_t{icc.intent}) + key_part("bpc", icc.use_bpc) +
         key_part("force_cmyk_icc_fail", conversion_.force_cmyk_icc_fail()) +
         key_part("cr", config_.color_resampling_mode) +
         key_part("crll", config_.color_resampling_linear_light) +
         key_part("wr", config_.white_resampling_mode);
}

/// Null for an image without pixels.
std::shared_ptr<const PreparedItemRaster> ItemComposer::prepare_item_raster(const Job& job,
                                                                            const std::string& key,
                                                                            const LoadedImage& image) {
  if (image.width == 0 || image.height == 0) return nullptr;
  const auto alone = caches_.raster_gate().enter(key);
  if (auto made = caches_.find_raster(key)) return made;

  Plan plan = make_plan(job, image);
  plan.traits = make_item_traits(image, plan.grid, config_, classify_white_coverage(job, &image, nullptr));
  const ColumnMap columns(0, job.placement.width, plan.grid.dest_width, plan.grid.source_width,
                          plan.traits.box);
  auto raster =
      std::make_shared<PreparedItemRaster>(job.placement.width, job.placement.height, plan.traits.has_white);
  const SourceView view = view_image(image, job.item.rotated, plan.traits);
  look_at_white(image, view, plan.traits, {0, plan.grid.source_height}, plan.grid.source_width, job.outcome);
  raster->has_ink = raster_rows(plan, view, columns, {0, job.placement.height}, raster->target()).has_ink;
  return caches_.insert_raster(key, std::move(raster));
}

void ItemComposer::compose_direct(const Job& job, const LoadedImage& image) {
  if (image.width == 0 || image.height == 0) {
    job.outcome.failure = "it has no pixels";
    job.outcome.failed_rows = {job.rows};
    return;
  }
  Plan plan = make_plan(job, image);
  plan.traits = make_item_traits(image, plan.grid, config_, classify_white_coverage(job, &image, nullptr));
  const SourceView view = view_image(image, job.item.rotated, plan.traits);
  look_at_white(image, view, plan.traits, source_rows_needed(plan.grid, plan.traits.box, job.rows),
                plan.grid.source_width, job.outcome);
  raster_onto_strip(job, plan, view);
}

void ItemComposer::count_painted(const Job& job, const Painted& painted) {
  job.outcome.painted = painted.pixels != 0;
  job.outcome.inked = painted.pixels != 0 && painted.has_ink;
  counters_.add(&CompositorCounters::pixels_written, painted.pixels);
}

/// The plan before the coverage is classified, which may cost a pass over the whole file.
ItemComposer::Plan ItemComposer::make_plan(const Job& job, const ImageMeta& meta) {
  Plan plan;
  plan.grid = make_item_grid(meta, job.item.rotated, job.placement);
  plan.traits = make_item_traits(meta, plan.grid, config_, false);
  job.outcome.white_is_alpha = plan.traits.white_is_alpha;
  plan.color = start_color(meta, plan.traits.is_rgb, job.worker);
  return plan;
}

RowColor ItemComposer::start_color(const ImageMeta& meta, bool is_rgb, WorkerIcc* worker) {
  RowColor color{&conversion_, worker, false, counters_.profiling()};
  if (!conversion_.wanted()) return color;
  std::string error;
  if (is_rgb) {
    const CounterBook::Timer timer(counters_, &CompositorCounters::icc_init_ns);
    color.converter_ready = conversion_.init_rgb_icc(worker, error);
    if (!color.converter_ready && in_order_) throw RowStreamBroken(error);
    if (!color.converter_ready) conversion_.warn_rgb_fallback(error);
  } else if (meta.is_cmyk && !conversion_.settings().input_cmyk_profile.empty()) {
    const CounterBook::Timer timer(counters_, &CompositorCounters::icc_init_ns);
    color.converter_ready = conversion_.init_cmyk_icc(worker, error);
    if (!color.converter_ready && in_order_) throw RowStreamBroken(error);
    if (!color.converter_ready) {
      log_warn("StripCompositor: CMYK->CMYK ICC: ", error);
      log_warn("CMYK art is printed as it stands in the file, since its profiles can't be used");
    }
  }
  return color;
}

/// Whether the item's coverage is binary, so that it may be scaled hard. Exactly one of `image` and `source`
/// is given.
bool ItemComposer::classify_white_coverage(const Job& job, const LoadedImage* image, RasterSource* source) {
  if (!config_.white_hard()) {
    counters_.add_when_profiling(&CompositorCounters::white_classify_hits, 1);
    return false;
  }
  if (const auto known = caches_.find_classification(job.signature)) {
    counters_.add(&CompositorCounters::white_classify_hits, 1);
    return *known;
  }
  bool binary = false;
  {
    const CounterBook::Timer timer(counters_, &CompositorCounters::white_classify_ns);
    binary = image != nullptr ? coverage_is_binary(*image) : coverage_is_binary(*source, job.item.path);
  }
  caches_.store_classification(job.signature, binary);
  counters_.add(&CompositorCounters::white_classify_misses, 1);
  return binary;
}

void ItemComposer::raster_onto_strip(const Job& job, const Plan& plan, const SourceView& view) {
  const IndexRange columns = columns_on_strip(job.placement, job.strip);
  if (columns.empty()) return;
  const ColumnMap map(columns.begin, columns.end, plan.grid.dest_width, plan.grid.source_width,
                      plan.traits.box);
  const PixelTarget target = strip_target(job.strip, job.placement, columns, job.rows, plan.traits.has_white);
  count_painted(job, raster_rows(plan, view, map, job.rows, target));
}

/// Without a worker of its own the item's rows may go to several threads; all but the first then need
/// converters besides the shared one.
ItemComposer::Painted ItemComposer::raster_rows(const Plan& plan, const SourceView& view,
                                                const ColumnMap& columns, const IndexRange& rows,
                                                const PixelTarget& target) {
  const std::uint64_t pixels = std::uint64_t{columns.size()} * rows.size();
  const bool has_thread_of_its_own = plan.color.worker != nullptr;
  const std::uint32_t threads =
      has_thread_of_its_own ? 1 : config_.threads.compose_threads(rows.size() / kMinRowsPerThread, pixels);
  std::atomic<std::uint64_t> written{0};
  std::atomic<bool> has_ink{false};
  const std::vector<WorkRange> parts = guided_ranges(rows.size(), threads, kMinRowsPerThread);
  parallel_tasks(parts.size(), threads, [&](std::size_t part_number, std::size_t thread) {
    const auto [begin, end] = parts[part_number];
    RowColor color = plan.color;
    std::optional<LeasePool<WorkerIcc>::Lease> lease;
    if (color.converter_ready && thread > 0) {
      lease.emplace(row_icc_.take());
      (*lease)->quiet = true;  // the item's own converter has been announced
      const CounterBook::Timer timer(counters_, &CompositorCounters::icc_init_ns);
      std::string error;
      const bool ready = plan.traits.is_rgb ? conversion_.init_rgb_icc(&**lease, error)
                                            : conversion_.init_cmyk_icc(&**lease, error);
      if (ready) color.worker = &**lease;
    }
    RowRasterizer rasterizer(view, plan.traits, plan.grid, columns, color);
    const IndexRange part{rows.begin + static_cast<std::uint32_t>(begin),
                          rows.begin + static_cast<std::uint32_t>(end)};
    rasterizer.raster_rows(part, target.below(static_cast<std::uint32_t>(begin)));
    written += rasterizer.pixels_written();
    if (rasterizer.has_ink()) has_ink = true;
    counters_.add_when_profiling(&CompositorCounters::color_convert_ns, rasterizer.conversion_nanoseconds());
  });
  return {written, has_ink};
}

}  // namespace nvo
