#include "image/tiff_channels.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include <tiff.h>

#include "core/log.h"
#include "core/text.h"
#include "core/white_names.h"

namespace nvo {
namespace {

constexpr unsigned kProcessInks = 4;
constexpr unsigned kRgbSamples = 3;

/// The channel list while it is being decided, with what extra samples may still become.
class ChannelList {
 public:
  /// `log_prefix` opens the log lines about ExtraSamples entries.
  explicit ChannelList(std::string_view log_prefix, bool white_possible = true)
      : log_prefix_(log_prefix), white_taken_(!white_possible) {}

  void add(ChannelRole role, std::string name, unsigned index) {
    white_taken_ |= role == ChannelRole::white;
    alpha_taken_ |= role == ChannelRole::alpha;
    channels_.push_back({role, std::move(name), static_cast<std::uint8_t>(index)});
  }

  void add_spot(unsigned number, unsigned index) {
    add(ChannelRole::spot, "Spot_" + std::to_string(number), index);
  }

  /// Decides the sample at `index` by ExtraSamples entry `number`.
  void add_extra(unsigned number, std::uint16_t type, unsigned index) {
    const bool unspecified = type == EXTRASAMPLE_UNSPECIFIED;
    const bool stated_alpha = type == EXTRASAMPLE_ASSOCALPHA || type == EXTRASAMPLE_UNASSALPHA;
    if (stated_alpha && !alpha_taken_) {
      add(ChannelRole::alpha, type == EXTRASAMPLE_ASSOCALPHA ? "Alpha(assoc)" : "Alpha(unassoc)", index);
      log_info(log_prefix_, "ExtraSample[", number, "] -> Alpha (type=", type, ")");
    } else if (unspecified && !white_taken_) {
      add(ChannelRole::white, "White", index);
      log_info(log_prefix_, "ExtraSample[", number, "] -> White (unspecified)");
    } else if (unspecified && !alpha_taken_) {
      add(ChannelRole::alpha, "Alpha(inferred)", index);
      log_info(log_prefix_, "ExtraSample[", number, "] -> Alpha (inferred)");
    } else {
      add_spot(number, index);
      log_warn(log_prefix_, "ExtraSample[", number, "] -> Spot (ignored)");
    }
  }

  void rename(unsigned index, const std::string& name) { channels_[index].name = name; }

  bool holds(unsigned index) const {
    return std::ranges::any_of(channels_,
                               [index](const ChannelInfo& channel) { return channel.index == index; });
  }

  bool has_white() const { return white_taken_; }

  std::vector<ChannelInfo> take() { return std::move(channels_); }

 private:
  std::string_view log_prefix_;
  bool white_taken_;
  bool alpha_taken_ = false;
  std::vector<ChannelInfo> channels_;
};

/// Decides every sample from `first_index` on by its ExtraSamples entry; a missing entry counts as
/// unspecified.
void add_all_extras(const TiffSampleTags& tags, unsigned first_index, ChannelList& list) {
  for (unsigned i = 0; first_index + i < tags.samples_per_pixel; ++i) {
    const bool stated = i < tags.extra_samples.size();
    list.add_extra(i, stated ? tags.extra_samples[i] : std::uint16_t{EXTRASAMPLE_UNSPECIFIED},
                   first_index + i);
  }
}

std::vector<ChannelInfo> gray_roles(const TiffSampleTags& tags) {
  ChannelList list("Grayscale ", /*white_possible=*/false);
  const bool min_is_white = tags.photometric == PHOTOMETRIC_MINISWHITE;
  list.add(ChannelRole::none, min_is_white ? "Gray(min-is-white)" : "Gray", 0);
  add_all_extras(tags, 1, list);
  return list.take();
}

std::vector<ChannelInfo> rgb_roles(const TiffSampleTags& tags) {
  ChannelList list("RGB ");
  list.add(ChannelRole::none, "Red", 0);
  list.add(ChannelRole::none, "Green", 1);
  list.add(ChannelRole::none, "Blue", 2);
  add_all_extras(tags, kRgbSamples, list);
  return list.take();
}

bool names_white(std::string_view name) {
  const std::string folded = ascii_lower(name);
  return folded.find("white") != std::string::npos || folded.find("     ") != std::string::npos ||
         folded.find("wht") != std::string::npos;
}

/// The first ink beyond the process inks is white whatever its name says, since shops name it as they like;
/// the name only shows in the log.
void add_named_inks(const TiffSampleTags& tags, ChannelList& list) {
  for (unsigned i = 0; i < tags.ink_names.size(); ++i) {
    const std::string& name = tags.ink_names[i];
    if (i < kProcessInks) {
      list.rename(i, name);
    } else if (!list.has_white()) {
      list.add(ChannelRole::white, name, i);
      log_info("Spot channel '", name, names_white(name) ? "' -> White" : "' (first spot) -> White");
    } else {
      list.add(ChannelRole::spot, name, i);
      log_warn("Spot channel '", name, "' at index ", i, " ignored (only first spot used)");
    }
  }
}

/// Makes a spot of every sample that nothing has decided.
void add_undecided(const TiffSampleTags& tags, std::string_view reason, ChannelList& list) {
  for (unsigned index = kProcessInks; index < tags.samples_per_pixel; ++index) {
    if (list.holds(index)) continue;
    const unsigned number = index - kProcessInks;
    list.add_spot(number, index);
    log_warn("Extra channel ", number, reason, "; treating as Spot (ignored)");
  }
}

void add_stated_extras(const TiffSampleTags& tags, ChannelList& list) {
  for (unsigned i = 0; i < tags.extra_samples.size(); ++i) {
    const unsigned index = kProcessInks + i;
    if (index >= tags.samples_per_pixel) {
      log_warn("TiffReader: ignoring ExtraSamples entry ", i,
               " beyond samples-per-pixel=", tags.samples_per_pixel);
      return;
    }
    if (!list.holds(index)) list.add_extra(i, tags.extra_samples[i], index);
  }
}

std::vector<ChannelInfo> cmyk_roles(const TiffSampleTags& tags) {
  ChannelList list("");
  list.add(ChannelRole::cyan, "Cyan", 0);
  list.add(ChannelRole::magenta, "Magenta", 1);
  list.add(ChannelRole::yellow, "Yellow", 2);
  list.add(ChannelRole::black, "Black", 3);
  if (tags.samples_per_pixel == kProcessInks) return list.take();

  add_named_inks(tags, list);
  if (!tags.extra_samples.empty()) {
    add_stated_extras(tags, list);
    add_undecided(tags, " has no name/type", list);
  } else if (!tags.ink_names.empty()) {
    add_undecided(tags, " missing InkNames entry", list);
  } else {
    log_warn("No InkNames / ExtraSamples tags. Treating ", tags.samples_per_pixel - kProcessInks,
             " extra channel(s) as spot.");
    add_undecided(tags, " has no InkNames/ExtraSamples signal", list);
  }
  return list.take();
}

/// What may be wrong with the role of a sample behind the `colours` of its pixel; nothing for other samples
/// and for roles that the file states.
std::optional<std::string> doubt_of_role(const TiffSampleTags& tags, const ChannelInfo& channel,
                                         unsigned colours) {
  const bool is_white = channel.role == ChannelRole::white;
  if (!is_white && channel.role != ChannelRole::alpha) return std::nullopt;
  if (channel.index < tags.ink_names.size()) {
    if (names_white_ink(channel.name)) return std::nullopt;
    return "Its ink '" + channel.name +
           "' is printed as white ink, as the first one behind the four colours always is; a viewer may show "
           "it as a colour of its own";
  }
  const unsigned number = channel.index - colours;
  const bool stated = number < tags.extra_samples.size();
  const auto type = stated ? tags.extra_samples[number] : std::uint16_t{EXTRASAMPLE_UNSPECIFIED};
  const std::string sample = "Sample " + std::to_string(channel.index + 1) + " of a pixel ";
  if (type == EXTRASAMPLE_ASSOCALPHA)
    return sample +
           "is alpha that the colours are already multiplied by (premultiplied), and is taken as straight "
           "alpha: the colours of soft edges print other than a viewer shows them";
  if (type != EXTRASAMPLE_UNSPECIFIED) return std::nullopt;
  const std::string name = number < tags.editor_names.size() ? tags.editor_names[number] : "";
  if (is_white && names_white_ink(name)) return std::nullopt;
  return sample + (name.empty() ? "" : "('" + name + "') ") + "has no stated meaning and is taken as " +
         (is_white ? "white ink" : "alpha") + "; a viewer may show the art without it";
}

}  // namespace

std::vector<ChannelInfo> detect_channel_roles(const TiffSampleTags& tags) {
  switch (tags.photometric) {
    case PHOTOMETRIC_SEPARATED:
      return cmyk_roles(tags);
    case PHOTOMETRIC_RGB:
      return rgb_roles(tags);
    default:
      return gray_roles(tags);
  }
}

std::vector<std::string> doubtful_channel_roles(const TiffSampleTags& tags) {
  const HeldLog unheard;  // the decisions have been told
  const bool is_gray = tags.photometric != PHOTOMETRIC_SEPARATED && tags.photometric != PHOTOMETRIC_RGB;
  const unsigned colours = is_gray ? 1 : tags.photometric == PHOTOMETRIC_RGB ? kRgbSamples : kProcessInks;
  std::vector<std::string> notes;
  for (const ChannelInfo& channel : detect_channel_roles(tags))
    if (auto doubt = doubt_of_role(tags, channel, colours)) notes.push_back(std::move(*doubt));
  return notes;
}

}  // namespace nvo
