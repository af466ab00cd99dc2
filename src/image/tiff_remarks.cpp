#include "image/tiff_remarks.h"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/text.h"
#include "image/tiff_channels.h"
#include "image/tiff_tags.h"

namespace nvo {
namespace {

/// Directories that are looked at behind the first; a hostile file may chain many large ones.
constexpr unsigned kMaxFurtherDirectories = 32;

std::string size_in_inches(const TiffMeta& meta) {
  char text[64];
  static_cast<void>(std::snprintf(text, sizeof text, "%.2f x %.2f inches",
                                  static_cast<double>(meta.width) / static_cast<double>(meta.dpi_x),
                                  static_cast<double>(meta.height) / static_cast<double>(meta.dpi_y)));
  return text;
}

std::string dots_per_inch(const TiffMeta& meta) {
  char text[64];
  static_cast<void>(std::snprintf(text, sizeof text, "%g x %g dots per inch", static_cast<double>(meta.dpi_x),
                                  static_cast<double>(meta.dpi_y)));
  return text;
}

void remark_resolution(TIFF* tiff, const TiffMeta& meta, ImageRemarks& remarks) {
  if (!(meta.x_resolution > 0.0f) && !(meta.y_resolution > 0.0f)) {
    remarks.resolution_source = ResolutionSource::assumed;
    remarks.notes.push_back("The file states no resolution; " + dots_per_inch(meta) +
                            " are assumed, so it prints at " + size_in_inches(meta));
  } else if (tiff_tag_or<std::uint16_t>(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH) == RESUNIT_NONE) {
    remarks.notes.push_back("The file's resolution has no unit and is taken as " + dots_per_inch(meta) +
                            ", so it prints at " + size_in_inches(meta));
  }
}

void remark_orientation(TIFF* tiff, ImageRemarks& remarks) {
  const auto orientation = tiff_tag_or<std::uint16_t>(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  if (orientation > ORIENTATION_TOPLEFT && orientation <= ORIENTATION_LEFTBOT)
    remarks.notes.push_back("Its orientation tag (" + std::to_string(orientation) +
                            ") is ignored: it prints as it is stored, while a viewer may turn or mirror it");
}

/// Images in full resolution behind the first, as far as the directories can be read.
unsigned count_further_images(const TiffFile& file, bool& complete) {
  const HeldLog unheard;
  const TiffFile walker = file.second();
  unsigned images = 0;
  complete = true;
  if (!walker) return images;
  for (unsigned i = 0; walker.ask(TIFFReadDirectory) == 1; ++i) {
    if (i == kMaxFurtherDirectories) {
      complete = false;
      break;
    }
    const auto type = tiff_tag_or<std::uint32_t>(walker.get(), TIFFTAG_SUBFILETYPE, 0);
    images += (type & (FILETYPE_REDUCEDIMAGE | FILETYPE_MASK)) == 0;
  }
  return images;
}

void remark_images(const TiffFile& file, ImageRemarks& remarks) {
  bool complete = true;
  const unsigned further = count_further_images(file, complete);
  if (further == 0) return;
  remarks.notes.push_back("The file holds " + std::string(complete ? "" : "more than ") +
                          std::to_string(1 + further) + " images, of which only the first is printed");
}

bool has_profile(TIFF* tiff) {
  std::uint32_t size = 0;
  const void* profile = nullptr;
  return TIFFGetField(tiff, TIFFTAG_ICCPROFILE, &size, &profile) == 1 && size != 0;
}

/// Inks of other names than the process's own are printed as these all the same.
void remark_inks(TIFF* tiff, const TiffSampleTags& tags, ImageRemarks& remarks) {
  constexpr std::array<std::string_view, 4> process = {"cyan", "magenta", "yellow", "black"};
  const HeldLog unheard;
  const std::vector<std::string> names = read_ink_names(tiff, tags.samples_per_pixel);
  if (tags.photometric != PHOTOMETRIC_SEPARATED || names.size() < process.size()) return;
  for (std::size_t ink = 0; ink < process.size(); ++ink) {
    const std::string name = ascii_lower(names[ink]);
    if (name.empty() || name == process[ink] || name == process[ink].substr(0, 1)) continue;
    if (name == "k" && process[ink] == "black") continue;
    remarks.notes.push_back("Its ink '" + names[ink] + "' is printed as " + std::string(process[ink]) +
                            ": the first four inks always are C, M, Y and K");
  }
}

TiffSampleTags sample_tags(TIFF* tiff, const TiffMeta& meta) {
  const HeldLog unheard;  // reading the tags has said it all
  return read_tiff_sample_tags(tiff, meta.samples_per_pixel);
}

}  // namespace

ImageRemarks remark_tiff(const TiffFile& file, const TiffMeta& meta) {
  ImageRemarks remarks;
  TIFF* const tiff = file.get();
  remark_resolution(tiff, meta, remarks);
  remarks.has_profile = has_profile(tiff);
  const TiffSampleTags tags = sample_tags(tiff, meta);
  for (std::string& note : doubtful_channel_roles(tags)) remarks.notes.push_back(std::move(note));
  remark_inks(tiff, tags, remarks);
  remark_orientation(tiff, remarks);
  remark_images(file, remarks);
  return remarks;
}

}  // namespace nvo
