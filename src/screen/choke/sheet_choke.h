#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "config/print_modes.h"
#include "core/large_vector.h"
#include "core/plane_view.h"
#include "plan/choke_plan.h"
#include "screen/choke/choke_context.h"
#include "screen/choke/coverage_planes.h"

namespace nvo {

class RipEngine;

/// The composed planes of a strip, halo included, or of the whole sheet; all of one size.
struct ComposedStrip {
  std::uint32_t src_y = 0, total_src_rows = 0;
  std::array<PlaneView, kChannelCount> inks;
  PlaneView explicit_white;
};

/// Nanoseconds that a strip's choke took.
struct ChokeTimes {
  std::uint64_t planes = 0;   ///< colour coverage and light areas
  std::uint64_t context = 0;  ///< masks on the device grid
};

/// The device-domain choke of a sheet whose plan has told its pad and halo. One strip at a time.
class SheetChoke {
 public:
  explicit SheetChoke(const ChokePlan& plan);

  /// Makes room for strips up to this size, so that none after the first touches new memory; room that nobody
  /// uses costs nothing.
  void reserve(std::uint32_t src_w, std::uint32_t src_rows, std::uint32_t dev_w, std::uint32_t dev_rows);

  /// Works out the choke of a strip with the settings and threads of `engine`, in the memory of the strip
  /// before.
  void prepare(const RipEngine& engine, const ComposedStrip& strip, ChokeTimes& times);

  /// What screening takes of the strip prepared last: the colour coverage, for the four inks only, and the
  /// masks. Null where no choke is active.
  PlaneView coverage() const { return coverage_view_; }
  const ChokeContext* context() const { return coverage_view_.null() ? nullptr : &context_; }

 private:
  void derive_planes(const RipEngine& engine, const ComposedStrip& strip);

  ChokePlan plan_;
  std::optional<LightProtection> light_protection_;
  LargeVector<std::uint8_t> coverage_, light_;
  PlaneView coverage_view_, light_view_;
  ChokeContext context_;
};

}  // namespace nvo
