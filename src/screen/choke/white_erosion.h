#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "screen/choke/bit_morphology.h"
#include "screen/choke/choke_context.h"

namespace nvo {

/// Decides where white survives the adaptive choke, on rows `begin` up to, not including, `end` of a strip:
/// white is drawn in by the radius, but what is too thin for that, light areas and explicit white stay. Rows
/// come from top to bottom out of a chain of steps, none of which holds more than a few rows; rows outside
/// the range are worked out as far as they matter. For one thread.
class WhiteErosion {
 public:
  /// Reads the settings, `support`, `light` and `exempt` of `context` and writes rows of `keep`. Row y of the
  /// support equals row `equal_row[y]`. All arguments must outlive the object.
  WhiteErosion(const ChokeContext& context, std::span<const std::uint32_t> equal_row, const OffsetShape& disc,
               std::size_t begin, std::size_t end, BitPlane& keep);
  ~WhiteErosion();

  /// Row y of the halo of thin white, in which colour grows; null if there is none. Ask for each row of the
  /// range: row y of `keep` is complete afterwards.
  const std::uint64_t* halo_row(std::size_t y);

 private:
  struct Chain;
  std::unique_ptr<Chain> chain_;
};

}  // namespace nvo
