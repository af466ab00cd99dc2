#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "screen/choke/bit_morphology.h"
#include "screen/choke/choke_context.h"
#include "screen/choke/choke_offsets.h"

namespace nvo {

/// Extends the colour of a strip outward by the choke's radius: dots of the ring take the colour of the
/// nearest dot on the colour's outline. For one thread.
class ColourRing {
 public:
  /// Reads `colour_core`, `exempt` and the layout of `ring` of `context`. `disc` is the shape of `offsets`.
  /// All arguments must outlive the object.
  ColourRing(const ChokeContext& context, std::span<const ChokeOffset> offsets, const OffsetShape& disc);
  ~ColourRing();

  /// Where a row of the ring goes.
  struct Row {
    std::uint64_t* grown;        ///< ring dots are added
    std::uint64_t* changed;      ///< is written if there are ring dots
    std::uint32_t*& places_end;  ///< the places of the changed dots are appended, see `ColourRingRows`
  };

  /// Finds the ring dots of row y; all of them count as changed where `afresh` is set. Dots with colour or
  /// explicit white are never among them, nor, unless `halo` is null, dots outside `halo`. Rows ascend; one
  /// that is left out has no ring. False if there are none.
  bool grow_row(std::size_t y, const std::uint64_t* halo, bool afresh, const Row& row);

 private:
  struct Steps;
  std::unique_ptr<Steps> steps_;
};

}  // namespace nvo
