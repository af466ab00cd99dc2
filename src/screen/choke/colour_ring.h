#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "screen/choke/bit_morphology.h"
#include "screen/choke/choke_context.h"
#include "screen/choke/choke_offsets.h"

namespace nvo {

/// Extends the colour of a strip outward by the choke's radius: dots of the ring take the colour of the
/// nearest dot on the colour's outline. For one thread.
class ColourRing {
 public:
  /// Reads `colour_core` and `exempt` of `context`. `disc` is the shape of `offsets`. All arguments must
  /// outlive the object.
  ColourRing(const ChokeContext& context, std::span<const ChokeOffset> offsets, const OffsetShape& disc);
  ~ColourRing();

  /// Adds to `grown` the ring dots of row y and appends them to `ring` by ascending column. Dots with colour
  /// or explicit white are never among them, nor, unless `halo` is null, dots outside `halo`. Rows may be
  /// asked for in any order; neighbouring ones are fastest.
  void grow_row(std::size_t y, const std::uint64_t* halo, std::uint64_t* grown, std::vector<RingDot>& ring);

 private:
  struct Steps;
  const ChokeContext& context_;
  std::unique_ptr<Steps> steps_;
};

}  // namespace nvo
