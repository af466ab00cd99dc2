#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/image_types.h"

namespace nvo {

/// The tags of a TIFF that tell what the samples of a pixel are.
struct TiffSampleTags {
  std::uint16_t photometric = 0;        ///< 0 min-is-white, 1 min-is-black, 2 RGB, 5 separated
  std::uint16_t samples_per_pixel = 0;  ///< at least 1, 3 for RGB, 4 for separated
  /// ExtraSamples: 0 unspecified, 1 associated alpha, 2 unassociated alpha. May have fewer or more entries
  /// than the pixel has extra samples.
  std::vector<std::uint16_t> extra_samples;
  std::vector<std::string> ink_names;  ///< at most one a sample; only separated files have them
  /// What an image editor calls the samples beyond the colour's own. Decides nothing.
  std::vector<std::string> editor_names;
};

/// Decides for every sample of a pixel what it is, and logs the decisions on samples beyond the colour's own.
/// Channels come in the order in which they are decided, which is not always that of `index`.
///
/// In separated and RGB files the first unspecified extra sample is white and only the second is alpha; in
/// gray files, which have no white of their own, the first is alpha.
std::vector<ChannelInfo> detect_channel_roles(const TiffSampleTags& tags);

/// Sentences on those decisions that another program may take otherwise: samples that became white or alpha
/// though nothing in the file says so, and alpha that the colours are already multiplied by. Nothing of a
/// white sample that is called white, be it in a few languages, by its ink or by the image editor.
std::vector<std::string> doubtful_channel_roles(const TiffSampleTags& tags);

}  // namespace nvo
