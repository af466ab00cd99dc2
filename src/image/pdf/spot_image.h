#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/spot_color_space.h"
#include "image/pdf/spot_content.h"

namespace nvo {

/// Coverage samples of an image, width x height bytes, top row first; empty when there is no such plane.
struct CoveragePlane {
  std::uint32_t width = 0, height = 0;
  std::string samples;

  bool empty() const { return samples.empty(); }
  std::uint8_t at(std::uint64_t column, std::uint64_t row) const {
    return static_cast<std::uint8_t>(samples[row * width + column]);
  }
};

/// What an image XObject adds to the page.
struct SpotImage {
  CoveragePlane white;  ///< of an image in a white Separation
  CoveragePlane alpha;  ///< of its soft mask
};

/// Decodes the images of one page, 8 bits and one component each. For one thread.
class SpotImageReader {
 public:
  /// Both must outlive this.
  SpotImageReader(const PdfObjectTable& table, SpotColorSpaces& spaces) : table_(table), spaces_(spaces) {}

  /// The planes of object `number`. Nothing once the work has run out.
  std::optional<SpotImage> read(std::int32_t number, WorkBudget& work);

  /// White has come from an image whose Separation has no name that means it.
  bool took_stand_in() const { return took_stand_in_; }

 private:
  CoveragePlane decode_white(const PdfObject& object, PdfTokenSpan tokens);
  CoveragePlane decode_soft_mask(const PdfObject& mask);

  const PdfObjectTable& table_;
  SpotColorSpaces& spaces_;
  bool took_stand_in_ = false;
};

}  // namespace nvo
