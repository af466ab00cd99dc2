#include "output/hoson_writer.h"

#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/scoped_timer.h"
#include "core/text.h"
#include "core/threads/parallel.h"
#include "output/print_temporary.h"

namespace nvo {
namespace {

constexpr TemporaryNames kPrintNames{print_temporary_path, 100, true};
constexpr std::size_t kInkMaps = 4;  // C, M, Y and K always come; white may be missing

/// Logs why a step of the write failed, then throws what failed.
[[noreturn]] void fail(const WriteFailure& failure, const std::string& text) {
  log_error("Print file: ", failure.text());
  throw MachineFailure(text);
}

/// How the exception of `end_stream_write` names a step.
const char* end_text(WriteFailure::Step step) {
  if (step == WriteFailure::Step::flush) return "flush/commit failed: ";
  return step == WriteFailure::Step::close ? "close failed: " : "atomic replace failed: ";
}

bool is_usable_path(const std::string& path) {
  return is_valid_utf8(path) && path.find('\0') == std::string::npos;
}

bool has_ink_maps(const std::vector<DropMap>& dropmaps) {
  return dropmaps.size() >= kInkMaps && !dropmaps.front().empty();
}

/// The map that a slot with this channel code prints, or null for a blank slot.
const DropMap* find_source(const std::vector<DropMap>& dropmaps, std::uint32_t code) {
  constexpr std::size_t second_white = kChannelW + 1;
  const auto present = [&](std::size_t index) {
    return index < dropmaps.size() && !dropmaps[index].empty() ? &dropmaps[index] : nullptr;
  };
  if (code > kChannelW) return nullptr;
  const DropMap* source = present(code);
  return source || code != kChannelW ? source : present(second_white);
}

struct SlotSource {
  const DropMap* map = nullptr;  ///< null for a blank slot
  std::size_t first_use = 0;     ///< the first slot that prints the same map
};

std::vector<SlotSource> find_slot_sources(const std::vector<DropMap>& dropmaps,
                                          const std::vector<std::uint32_t>& channel_map) {
  std::vector<SlotSource> slots(channel_map.size());
  for (std::size_t i = 0; i < slots.size(); ++i) {
    slots[i].map = find_source(dropmaps, channel_map[i]);
    while (slots[slots[i].first_use].map != slots[i].map) ++slots[i].first_use;
  }
  return slots;
}

/// Writes every byte of the cycle: the buffer holds an earlier strip.
void pack_row_cycle(const std::vector<SlotSource>& slots, std::uint32_t row, std::uint32_t width,
                    std::uint32_t stride, std::uint8_t* cycle) {
  const std::uint32_t packed = packed_dots_bytes(width);
  for (std::size_t i = 0; i < slots.size(); ++i) {
    std::uint8_t* out = cycle + i * stride;
    if (!slots[i].map) {
      std::memset(out, 0, stride);
    } else if (slots[i].first_use != i) {
      std::memcpy(out, cycle + slots[i].first_use * stride, stride);
    } else {
      pack_row(slots[i].map->data.data() + std::size_t{row} * width, width, out);
      std::memset(out + packed, 0, stride - packed);
    }
  }
}

}  // namespace

void HosonWriter::begin_stream_write(const std::string& path, std::uint32_t width, std::uint32_t height,
                                     StripOrder order) {
  if (open_) throw std::runtime_error("HosonWriter::begin_stream_write: stream is already open");
  if (width == 0 || height == 0)
    throw std::invalid_argument("HosonWriter::begin_stream_write: invalid device size");
  layout_ = prt_row_layout(options_.head, width);
  width_ = width;
  height_ = height;
  const PrtHeader fields = make_prt_header(options_.head, options_.print_mode, width, height);
  file_size_ = prt_file_size(fields);
  begin_file(path);
  try {
    const auto header = encode_prt_header(fields);
    write_bytes(0, header.data(), header.size(), "header field");
    path_ = path;
  } catch (...) {
    give_up();
    throw;
  }
  order_ = order;
  rows_left_ = height;
  open_ = true;
}

void HosonWriter::begin_file(const std::string& path) {
  const std::string text = "HosonWriter::begin_stream_write: cannot open output file: " + path;
  if (!is_usable_path(path)) throw MachineFailure(text);
  if (const auto failure = file_.begin(path, file_size_, kPrintNames)) fail(*failure, text);
}

void HosonWriter::write_dropmaps_strip(const std::vector<DropMap>& dropmaps, std::uint32_t y) {
  if (!open_) throw std::runtime_error("HosonWriter::write_dropmaps_strip: stream is not open");
  try {
    check_strip(dropmaps, y);
    if (dropmaps.front().height != 0) write_strip(dropmaps, y);
  } catch (...) {
    give_up();
    throw;
  }
}

void HosonWriter::check_strip(const std::vector<DropMap>& dropmaps, std::uint32_t y) const {
  // A strip without rows has no data either; it says that it is one by its width.
  const bool without_rows = !dropmaps.empty() && dropmaps.front().height == 0 && dropmaps.front().width != 0;
  if (dropmaps.size() < kInkMaps || (dropmaps.front().empty() && !without_rows))
    throw std::invalid_argument(
        "HosonWriter::write_dropmaps_strip: need at least 4 non-empty dropmaps (CMYK)");
  const DropMap& first = dropmaps.front();
  if (first.width != width_) throw std::runtime_error("HosonWriter::write_dropmaps_strip: width mismatch");
  if (without_rows) return;
  require_in_bounds(first.height, y);
  for (const DropMap& map : dropmaps) {
    if (map.empty()) continue;
    const bool same_size = map.width == first.width && map.height == first.height;
    if (!same_size || map.data.size() < std::uint64_t{map.width} * map.height)
      throw std::runtime_error("HosonWriter::write_dropmaps_strip: inconsistent strip dropmap sizes");
  }
  require_next(first.height, y);
}

void HosonWriter::require_in_bounds(std::uint32_t rows, std::uint32_t y) const {
  if (y >= height_ || rows > height_ - y)
    throw std::runtime_error("HosonWriter::write_dropmaps_strip: strip is out of device bounds");
}

void HosonWriter::require_next(std::uint32_t rows, std::uint32_t y) const {
  const bool top_down = order_ == StripOrder::top_down;
  if (top_down ? y == height_ - rows_left_ : y + rows == rows_left_) return;
  throw std::runtime_error(std::string("HosonWriter::write_dropmaps_strip: strips must be written in ") +
                           (top_down ? "ascending" : "descending") + " image-row order");
}

std::uint64_t HosonWriter::place_of(std::uint32_t y, std::uint32_t rows) const {
  return kPrtHeaderSize + std::uint64_t{height_ - y - rows} * layout_.cycle_len;
}

StripCycles HosonWriter::make_strip_cycles(std::uint32_t rows, std::uint32_t y, StripCycles spent) {
  if (!open_) throw std::runtime_error("HosonWriter::make_strip_cycles: stream is not open");
  if (rows == 0) return {};
  require_in_bounds(rows, y);
  StripCycles strip;
  strip.rows = rows;
  strip.size = std::size_t{rows} * layout_.cycle_len;
  strip.memory = std::move(spent.memory);
  if (!strip.memory || strip.memory.get_deleter().size < strip.size + platform::kBulkBlock)
    strip.memory = platform::allocate_bulk(strip.size + platform::kBulkBlock);
  // The cycles lie in their blocks of memory as they will lie in the file's, so that they need no copy.
  strip.bytes = strip.memory.get() + place_of(y, rows) % platform::kBulkBlock;

  // A row of an ink stands in the first slot that names it, and once more in each further one.
  std::uint8_t* const top_cycle = strip.bytes + std::size_t{rows - 1} * layout_.cycle_len;
  const std::vector<std::uint32_t> slots = normalize_channel_map(options_.head, options_.output_channel_map);
  for (std::size_t slot = 0; slot < slots.size(); ++slot) {
    if (slots[slot] >= kChannelCount) {
      for (std::size_t row = 0; row < rows; ++row)
        std::memset(strip.bytes + row * layout_.cycle_len + slot * layout_.stride, 0, layout_.stride);
      continue;
    }
    PackedRows& channel = strip.channels[slots[slot]];
    std::uint8_t* const top = top_cycle + slot * layout_.stride;
    if (channel.top) {
      channel.copies.push_back(top - channel.top);
      continue;
    }
    channel.width = width_;
    channel.top = top;
    channel.step = -static_cast<std::ptrdiff_t>(layout_.cycle_len);
    channel.padding = layout_.stride - packed_dots_bytes(width_);
    channel.pack_ns = timing_ ? &packed_by_callers_ns_ : nullptr;
  }
  return strip;
}

void HosonWriter::write_cycles_strip(const StripCycles& strip, std::uint32_t y) {
  if (!open_) throw std::runtime_error("HosonWriter::write_cycles_strip: stream is not open");
  if (strip.rows == 0) return;
  try {
    require_in_bounds(strip.rows, y);
    require_next(strip.rows, y);
    HosonWriterCounters counters;
    counters.rows = strip.rows;
    counters.bytes = strip.size;
    write_cycles(strip.bytes, y, counters);
  } catch (...) {
    give_up();
    throw;
  }
}

void HosonWriter::write_strip(const std::vector<DropMap>& dropmaps, std::uint32_t y) {
  HosonWriterCounters strip;
  strip.rows = dropmaps.front().height;
  strip.bytes = strip.rows * layout_.cycle_len;
  reserve_strip_buffer(strip.bytes);
  strip.pack_ns = pack_strip(dropmaps);
  write_cycles(strip_buffer_.get(), y, strip);
}

void HosonWriter::write_cycles(const std::uint8_t* cycles, std::uint32_t y, HosonWriterCounters strip) {
  const auto rows = static_cast<std::uint32_t>(strip.rows);
  {
    std::optional<ScopedTimer> timer;
    if (timing_) timer.emplace(strip.file_ns);
    write_bytes(place_of(y, rows), cycles, strip.bytes, "strip row cycles");
  }
  rows_left_ -= rows;

  const std::lock_guard lock(counters_mutex_);
  counters_.rows += strip.rows;
  counters_.bytes += strip.bytes;
  counters_.pack_ns += strip.pack_ns;
  counters_.file_ns += strip.file_ns;
}

std::uint64_t HosonWriter::pack_strip(const std::vector<DropMap>& dropmaps) {
  const std::vector<SlotSource> slots =
      find_slot_sources(dropmaps, normalize_channel_map(options_.head, options_.output_channel_map));
  const std::uint32_t rows = dropmaps.front().height;
  const std::uint32_t workers = options_.threads.writer_threads(rows, layout_.cycle_len);

  std::vector<std::uint64_t> worker_ns(workers);
  parallel_ranges(rows, workers, [&](std::size_t begin, std::size_t end, std::size_t worker) {
    std::optional<ScopedTimer> timer;
    if (timing_) timer.emplace(worker_ns[worker]);
    for (std::size_t r = begin; r < end; ++r)
      pack_row_cycle(slots, rows - 1 - static_cast<std::uint32_t>(r), width_, layout_.stride,
                     strip_buffer_.get() + r * layout_.cycle_len);
  });
  std::uint64_t total = 0;
  for (const std::uint64_t ns : worker_ns) total += ns;
  return total;
}

void HosonWriter::reserve_strip_buffer(std::size_t size) {
  if (size <= strip_buffer_size_) return;
  strip_buffer_.reset();
  strip_buffer_size_ = 0;
  strip_buffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(size);
  strip_buffer_size_ = size;
}

void HosonWriter::write_bytes(std::uint64_t offset, const void* data, std::size_t size, const char* label) {
  if (!file_.is_open() || !data)
    throw std::runtime_error(std::string("write_dropmaps: invalid write for ") + label);
  if (const auto failure = file_.write_at(offset, data, size))
    fail(*failure, std::string("write_dropmaps: failed to write ") + label);
}

void HosonWriter::end_stream_write() {
  if (!open_) return;
  try {
    if (rows_left_ != 0)
      throw std::runtime_error("HosonWriter::end_stream_write: stream finished before all rows were written");
    if (const auto failure = file_.commit(options_.keep_existing ? Existing::keep : Existing::replace))
      fail(*failure, "HosonWriter::end_stream_write: " + std::string(end_text(failure->step)) + path_);
  } catch (...) {
    give_up();
    throw;
  }
  give_up();  // of a file that has its name nothing is left to give up
}

void HosonWriter::give_up() noexcept {
  file_.give_up();
  path_.clear();
  rows_left_ = 0;
  open_ = false;
}

void HosonWriter::write_dropmaps(const std::vector<DropMap>& dropmaps, const std::string& path) {
  if (!has_ink_maps(dropmaps))
    throw std::invalid_argument("write_dropmaps: need at least 4 non-empty dropmaps (CMYK)");
  const DropMap& first = dropmaps.front();
  const PrtRowLayout layout = prt_row_layout(options_.head, first.width);
  const std::uint64_t size = std::uint64_t{layout.cycle_len} * first.height + kPrtHeaderSize;
  log_info("write_dropmaps: ", first.width, "x", first.height, " stride=", layout.stride,
           " cycle=", layout.cycle_len, " size=~", size >> 20, "MB -> ", path);
  try {
    begin_stream_write(path, first.width, first.height);
    write_dropmaps_strip(dropmaps, 0);
    end_stream_write();
  } catch (...) {
    give_up();
    throw;
  }
  try {
    log_info("write_dropmaps: done -> ", path);
  } catch (const std::bad_alloc&) {  // The file stands, whether or not there is memory to say so.
  }
}

void HosonWriter::reset_counters() {
  const std::lock_guard lock(counters_mutex_);
  counters_ = {};
}

HosonWriterCounters HosonWriter::counters() const {
  const std::lock_guard lock(counters_mutex_);
  HosonWriterCounters totals = counters_;
  totals.pack_ns += packed_by_callers_ns_;
  return totals;
}

}  // namespace nvo
