#pragma once

#include <cstdint>

namespace nvo {

/// The machine's hardware threads, or 2 if the system cannot tell.
std::uint32_t hardware_threads();

/// The most threads that may be asked of a stage.
inline constexpr std::uint32_t kMaxChannelThreads = 5;
inline constexpr std::uint32_t kMaxRowThreads = 64;
inline constexpr std::uint32_t kMaxComposeThreads = 16;
inline constexpr std::uint32_t kMaxWriterThreads = 32;

/// Whether a stage divides its work among threads.
enum class WorkDivision : std::uint8_t { never, if_large, always };

/// How one stage may divide its work.
struct StageThreads {
  WorkDivision division = WorkDivision::if_large;
  std::uint32_t limit = 1;   ///< threads at the most
  bool limit_asked = false;  ///< by a person, not by the machine
};

/// How many threads each stage of a job may use: settled once, then handed to all whom it concerns. What a
/// job prints does not depend on it. The default is that of a job whose settings and environment ask for
/// nothing.
struct ThreadPlan {
  ThreadPlan() : ThreadPlan(hardware_threads()) {}
  explicit ThreadPlan(std::uint32_t machine_threads);

  std::uint32_t hardware;
  StageThreads channels;
  StageThreads rows;               ///< of planes and of the device grid
  StageThreads compose;            ///< items, rows of an item, pieces of a compressed file
  StageThreads writer;             ///< rows of the print file that are packed from drop maps
  std::uint32_t side_by_side = 1;  ///< threads that screen channels at a time

  /// Workers of the channel pool: 2 to 5, or 1 where that was asked for.
  std::uint32_t channel_threads() const { return channels.limit; }

  /// Whether the five channels of a strip run side by side. `workload_px` counts device pixels of the sheet;
  /// from `min_pixels` on they do unless it is forbidden, if `auto_enabled`.
  bool use_parallel_channels(bool auto_enabled, std::uint64_t workload_px, std::uint64_t min_pixels) const;

  /// Workers for a stage that divides `rows` rows of `row_bytes` bytes; at least 1.
  std::uint32_t row_threads(std::uint64_t rows, std::uint64_t row_bytes) const;
  /// The same for each of the threads that divide rows `side_by_side`: unless row threads were asked for, all
  /// together keep to the hardware's.
  std::uint32_t shared_row_threads(std::uint64_t rows, std::uint64_t row_bytes) const;

  /// Threads for `tasks` independent pieces of composition that make `pixels` pixels in all; at least 1.
  std::uint32_t compose_threads(std::uint64_t tasks, std::uint64_t pixels) const;

  /// Workers that pack a strip of `rows` row cycles of `cycle_len` bytes; 1 to `rows`.
  std::uint32_t writer_threads(std::uint32_t rows, std::uint32_t cycle_len) const;
};

}  // namespace nvo
