#pragma once

#include <cstddef>
#include <cstdint>

namespace nvo {

/// The loops of coverage_planes.h for one instruction set. All give the same bytes. They take rows by bare
/// pointers for the reason given in screening_kernels.h.
struct CoverageKernels {
  /// The largest of four bytes.
  void (*largest)(const std::uint8_t* c, const std::uint8_t* m, const std::uint8_t* y, const std::uint8_t* k,
                  std::size_t count, std::uint8_t* out);
  /// 255 where the printed luminance of four inks is at least `least_luminance`, else 0.
  void (*at_least)(const std::uint8_t* c, const std::uint8_t* m, const std::uint8_t* y, const std::uint8_t* k,
                   std::size_t count, float least_luminance, std::uint8_t* out);
};

}  // namespace nvo
