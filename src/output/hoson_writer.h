#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "config/print_modes.h"
#include "core/atomic_file.h"
#include "core/platform/bulk_file.h"
#include "core/threads/thread_plan.h"
#include "output/prt_format.h"
#include "plan/strip_plan.h"
#include "screen/drop_map.h"

namespace nvo {

struct HosonWriterOptions {
  HeadConfig head;
  PrintMode print_mode;  ///< stands for a row of the head's catalog; the header names that row's numbers
  std::vector<std::uint32_t> output_channel_map;  ///< laid over the head's default; may be shorter or longer
  bool keep_existing = false;  ///< a target that stands, or appears meanwhile, is a failure, not replaced
  ThreadPlan threads{};
};

/// Totals of all strips. The durations grow only while timing is on.
struct HosonWriterCounters {
  std::uint64_t rows = 0, bytes = 0;
  std::uint64_t pack_ns = 0;  ///< summed over the packing threads, this writer's and those of packed strips
  std::uint64_t file_ns = 0;
};

/// The row cycles of a strip, bottom row first, and where each channel's packed rows belong in them.
struct StripCycles {
  std::uint32_t rows = 0;
  std::uint8_t* bytes = nullptr;                   ///< the bottom row's cycle, in `memory`
  std::size_t size = 0;                            ///< bytes of all cycles
  std::array<PackedRows, kChannelCount> channels;  ///< a `top` of null where no slot prints the channel
  platform::BulkMemory memory;
};

/// Writes a print file (see prt_format.h) as a stream of strips from the bottom of the sheet to its top or,
/// where the caller says so, from the top to the bottom: the bytes are the same. The file takes its name only
/// when it is whole and on the disk; an unfinished stream leaves the old file and no temporary one. A file
/// that replaces another has its access rights. Where the system has failed, the log has the cause at ERROR
/// and a `MachineFailure` is thrown. Any failure ends the stream; a writer without a stream can begin
/// another. For one thread but where a function says otherwise; the counters may be read by any.
class HosonWriter {
 public:
  explicit HosonWriter(HosonWriterOptions options) : options_(std::move(options)) {}
  ~HosonWriter() { give_up(); }
  HosonWriter(const HosonWriter&) = delete;
  HosonWriter& operator=(const HosonWriter&) = delete;

  /// Opens a stream of `width` x `height` dots for the target `path` (UTF-8). Throws `invalid_argument` for a
  /// size of 0, `overflow_error` where a row cycle exceeds 32 bits, `runtime_error` for file problems.
  void begin_stream_write(const std::string& path, std::uint32_t width, std::uint32_t height,
                          StripOrder order = StripOrder::bottom_up);

  /// Writes one strip: drop maps in the order C, M, Y, K, W, at least the first four, `y` the device row of
  /// the strip's top row. An empty map leaves its slots blank. Strips come in the stream's order without
  /// gaps; one of no rows is passed over. Throws `invalid_argument` for too few maps, `runtime_error`
  /// otherwise.
  void write_dropmaps_strip(const std::vector<DropMap>& dropmaps, std::uint32_t y);

  /// Writes one strip whose rows are packed already, as `make_strip_cycles` lays them out: the file takes the
  /// bytes as they are. `y` and the order of strips as for drop maps. Throws `runtime_error`.
  void write_cycles_strip(const StripCycles& strip, std::uint32_t y);

  /// Room for a strip of `rows` rows, the top one device row `y`, in the form of the open stream's file.
  /// Blank slots are 0; the rest is for the caller to fill. The memory of `spent` is used again. Another
  /// thread may write meanwhile.
  StripCycles make_strip_cycles(std::uint32_t rows, std::uint32_t y, StripCycles spent = {});

  /// Flushes the file and moves it over the target. Without a stream it does nothing.
  void end_stream_write();

  /// Ends a stream whose file isn't wanted: the target is what it was. Without a stream it does nothing.
  void give_up() noexcept;

  /// A whole file in one call.
  void write_dropmaps(const std::vector<DropMap>& dropmaps, const std::string& path);

  /// Bytes of a row cycle of the open stream.
  std::size_t row_bytes() const { return layout_.cycle_len; }

  void set_timing(bool enabled) { timing_ = enabled; }
  HosonWriterCounters counters() const;
  void reset_counters();

 private:
  void begin_file(const std::string& path);
  void check_strip(const std::vector<DropMap>& dropmaps, std::uint32_t y) const;
  void require_in_bounds(std::uint32_t rows, std::uint32_t y) const;
  void require_next(std::uint32_t rows, std::uint32_t y) const;
  void write_strip(const std::vector<DropMap>& dropmaps, std::uint32_t y);
  void write_cycles(const std::uint8_t* cycles, std::uint32_t y, HosonWriterCounters strip);
  /// Where the file has the cycles of rows `y` .. `y + rows - 1`.
  std::uint64_t place_of(std::uint32_t y, std::uint32_t rows) const;
  /// Fills the strip buffer; returns the packing time, summed over the workers, or 0 without timing.
  std::uint64_t pack_strip(const std::vector<DropMap>& dropmaps);
  void write_bytes(std::uint64_t offset, const void* data, std::size_t size, const char* label);
  void reserve_strip_buffer(std::size_t size);

  HosonWriterOptions options_;
  AtomicFile file_;
  std::string path_;
  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::uint64_t file_size_ = 0;
  PrtRowLayout layout_;
  StripOrder order_ = StripOrder::bottom_up;
  std::uint32_t rows_left_ = 0;  ///< to be written
  std::atomic<bool> open_ = false;

  std::unique_ptr<std::uint8_t[]> strip_buffer_;
  std::size_t strip_buffer_size_ = 0;

  bool timing_ = false;
  mutable std::mutex counters_mutex_;
  HosonWriterCounters counters_;
  std::atomic<std::uint64_t> packed_by_callers_ns_{0};
};

}  // namespace nvo
