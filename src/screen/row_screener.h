#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "screen/choke/choke_context.h"
#include "screen/mask_cache.h"
#include "screen/pair_sampler.h"
#include "screen/ring_screener.h"
#include "screen/row_sampler.h"

namespace nvo {

/// All that decides the dots of one channel of a strip; shared by its row workers, read-only.
struct StripScreening {
  StripSampling sampling;
  const MaskCache* masks = nullptr;
  std::span<const std::uint8_t> no_mask;  ///< a tile row, used where `masks` holds none
  std::uint32_t channel = 0;
  std::uint32_t first_device_row = 0;          ///< of the strip on the whole plane
  const ChokeContext* colour_choke = nullptr;  ///< of the strip's size, or null
  const ChokeContext* white_choke = nullptr;  ///< the same for a white channel; at most one of the two is set
};

/// The rows of one worker from codes to dots: mask, choke, ring.
class RowScreener {
 public:
  RowScreener(const StripScreening& strip, RowBuffers& buffers);

  /// Writes the drop levels of device row `y`, counted from the strip's first; rows ascend. A row that can
  /// hold no drop answers false and leaves `dots` as it was.
  bool screen(std::size_t y, std::uint8_t* dots);

  /// The same in packed form, `packed_dots_bytes` bytes, without a row of bytes between.
  bool screen_packed(std::size_t y, std::uint8_t* out);

 private:
  /// The dots that stay as sampled: those that both planes keep, all if they are null. Ring dots are not
  /// among them.
  struct Kept {
    const std::uint64_t* row = nullptr;
    const std::uint64_t* also = nullptr;
  };

  void screen_codes_packed(const CodeRow& codes, const std::uint8_t* mask, const Kept& kept,
                           std::uint8_t* out) const;
  CodeRow codes(std::size_t y);
  CodeRow sampled(std::size_t y);
  CodeRow ring_codes(std::size_t y);
  Kept kept(std::size_t y) const;
  void keep_dots(const Kept& kept, std::uint8_t* dots);
  void add_ring(std::size_t y, const CodeRow& ring, const std::uint8_t* mask, std::uint8_t* dots);
  void add_ring_packed(std::size_t y, const CodeRow& ring, const std::uint8_t* mask, std::uint8_t* out) const;

  const StripScreening& strip_;
  RowBuffers& buffers_;
  std::optional<PairSampler> pairs_;  ///< one of the two
  std::optional<RowSampler> rows_;
  std::optional<RingScreener> ring_;  ///< where a colour choke has ring dots
};

/// The mask tile row of device row `y` of the strip. It repeats from the top of the plane, not of the strip,
/// so the screen runs on across strips.
const std::uint8_t* mask_row(const StripScreening& strip, std::size_t y);

/// Levels of a row of codes under a mask tile row, which repeats along it.
void screen_codes(const StripScreening& strip, const CodeRow& codes, const std::uint8_t* mask,
                  std::uint8_t* dots);

}  // namespace nvo
