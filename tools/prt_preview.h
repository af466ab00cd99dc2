#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/ink_model.h"
#include "tools/prt_reader.h"

namespace nvo {

/// A part of the image; inches from its top left corner.
struct InchRect {
  double x = 0, y = 0, width = 0, height = 0;
};

struct PreviewOptions {
  std::vector<std::uint32_t> slot_map;   ///< a channel code for each slot of the file
  std::optional<std::uint32_t> channel;  ///< only this one: C, M, Y, K black on white, W white on the film
  std::optional<double> dpi;             ///< pixels per inch, in both directions
  std::optional<InchRect> crop;
  Rgb8 film{0x5A, 0x64, 0x70};  ///< neither dark nor light, so that white and black ink both show
};

/// What part of the device grid becomes how many pixels.
struct PreviewPlan {
  std::uint32_t left = 0, top = 0, columns = 0, rows = 0;  ///< dots
  std::uint32_t width = 0, height = 0;                     ///< pixels
  double dpi = 0;
};

/// Throws `invalid_argument` for a crop outside of the image and for pictures above the size limit,
/// `runtime_error` for a header without resolution.
PreviewPlan plan_preview(const PrtReader& reader, const PreviewOptions& options);

/// Draws the printed film as a PNG, right way up. A pixel is the mean of the dots below it, parts of dots
/// included, a dot counting as a flat rectangle of a third of the ink a level. Where several slots carry one
/// ink the first is shown. An older file at `picture_path` is replaced, but no print file and nothing that is
/// not a regular file: those throw `invalid_argument`. Memory is a few megabytes and some rows, whatever the
/// file's size.
void write_preview(PrtReader& reader, const PreviewOptions& options, const std::string& picture_path);

}  // namespace nvo
