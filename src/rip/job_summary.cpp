#include "rip/job_summary.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>

#include "core/log.h"
#include "image/image_format.h"
#include "image/image_meta_probe.h"

namespace nvo {
namespace {

constexpr double kMillimetresPerInch = 25.4;
/// The layout takes a resolution that is so close to its grid, in dots per inch, for that of the grid.
constexpr float kSnapDpi = 0.51f;
/// Art of so many pixels should come out larger than this.
constexpr std::uint32_t kLeastPixels = 16;
constexpr float kLeastInches = 1.0f / 72.0f;

std::string rounded(double number, int places) {
  const double unit = std::pow(10.0, places);
  std::ostringstream text;
  text.precision(9);
  text << std::round(number * unit) / unit;
  return text.str();
}

std::string by(double width, double height, int places) {
  return rounded(width, places) + " x " + rounded(height, places);
}

std::string size_text(double width_in, double height_in) {
  return by(width_in * kMillimetresPerInch, height_in * kMillimetresPerInch, 1) + " mm (" +
         by(width_in, height_in, 3) + " in)";
}

const char* intent_name(std::int32_t intent) {
  constexpr const char* kNames[] = {"perceptual", "relative colorimetric", "saturation",
                                    "absolute colorimetric"};
  return intent >= 0 && intent < 4 ? kNames[intent] : "unknown intent";
}

const char* source_of(const ImageProbeInfo& image, float dpi_x) {
  if (format_traits(image.kind).is_page) return "at which pages are rasterised";
  if (std::abs(dpi_x - image.dpi_x) > kSnapDpi) return "from the size that was asked for";
  switch (image.resolution_source) {
    case ResolutionSource::file:
      return "as the file states";
    case ResolutionSource::assumed:
      return "assumed, since the file states none";
    case ResolutionSource::damaged:
      return "assumed, since what the file states is damaged";
    case ResolutionSource::page:
      return "at which pages are rasterised";
  }
  return "";
}

void log_art(const LayoutItem& item, const ImageProbeInfo& image) {
  const float across = item.rotated ? item.height_in : item.width_in;
  const float along = item.rotated ? item.width_in : item.height_in;
  const float dpi_x = static_cast<float>(image.width) / across;
  const float dpi_y = static_cast<float>(image.height) / along;
  log_info("Job: art of ", image.width, " x ", image.height, " px on ",
           size_text(item.width_in, item.height_in), ", ",
           std::abs(dpi_x - dpi_y) < 0.5f ? rounded(dpi_x, 1) : by(dpi_x, dpi_y, 1), " dpi ",
           source_of(image, dpi_x));
  const bool has_content = std::max(image.width, image.height) > kLeastPixels;
  if (has_content && std::max(item.width_in, item.height_in) < kLeastInches)
    log_warn("Art '", item.path, "': its ", image.width, " x ", image.height, " px at ", rounded(dpi_x, 1),
             " dpi are no more than a point, and the film is as good as bare");
}

std::string profiles_text(const std::string& input, const IccSettings& icc) {
  return "by the profiles " + input + " -> '" + icc.output_profile + "', " + intent_name(icc.intent) +
         ", black point compensation " + (icc.use_bpc ? "on" : "off");
}

std::string colour_text(const ImageMeta& art, const IccSettings& icc) {
  const bool wanted = icc.enabled && !icc.output_profile.empty();
  if (art.is_rgb || !art.is_cmyk) {
    const std::string kind = art.is_gray ? "gray" : "RGB";
    if (!wanted) return kind + " to CMYK by formula, without a profile";
    const std::string& input = icc.input_rgb_profile;
    return kind + " to CMYK " + profiles_text(input.empty() ? "sRGB" : "'" + input + "'", icc);
  }
  if (wanted && !icc.input_cmyk_profile.empty())
    return "CMYK to CMYK " + profiles_text("'" + icc.input_cmyk_profile + "'", icc);
  return std::string("CMYK as it stands in the file, without a profile") +
         (wanted ? ", since no input_cmyk_profile is set" : "");
}

std::string white_text(const ImageMeta& art, const RipJobOptions& options) {
  const auto slots = normalize_channel_map(options.head(), options.output_channel_map);
  if (std::ranges::find(slots, std::uint32_t{kChannelW}) == slots.end())
    return "not printed, no slot prints W";
  const bool is_page = format_traits(art.kind).is_page;
  if (const int white = art.role_index(ChannelRole::white); white >= 0) {
    if (is_page) return "from the page's white spot colour";
    const auto channel = std::ranges::find(art.channels, ChannelRole::white, &ChannelInfo::role);
    const std::string name = channel == art.channels.end() ? "" : channel->name;
    return "from the file's white channel" + (name.empty() ? name : " '" + name + "'");
  }
  if (art.role_index(ChannelRole::alpha) >= 0)
    return is_page ? "under all that the page paints; no white spot colour was found"
                   : "from the file's transparency; it has no white channel";
  return "under the whole image; neither a white channel nor transparency was read";
}

std::string choke_text(const SheetPlan& plan) {
  const ChokePlan& choke = plan.choke;
  if (!choke.is_active()) return "off";
  const double amount = choke.white_choke_amount_px_at_300dpi;
  const std::string text = std::string(choke.is_adaptive() ? "adaptive" : "production") + ", " +
                           rounded(amount, 3) + " px at 300 dpi (" +
                           rounded(amount / double{WhiteChoke::kReferenceDpi} * kMillimetresPerInch, 3) +
                           " mm)";
  if (!choke.is_adaptive()) return text;
  return text + ", features up to " + std::to_string(choke.white_choke_adaptive_min_width_dots) +
         " dots keep their white, " +
         (choke.protects_light()
              ? "light areas from L* " + rounded(choke.white_choke_adaptive_lightness_threshold, 1) +
                    " keep theirs"
              : "light areas don't");
}

std::string ink_limit_text(const WhiteInkLimit& limit) {
  if (!limit.white_ink_limit_enabled) return "off";
  return rounded(limit.total_ink_budget_pct, 1) + " % for all inks of a pixel, full white counts " +
         rounded(limit.max_white_pct, 1) + " %, " + rounded(limit.min_white_pct, 1) + " % stay";
}

std::string resampling_text(const Resampling& resampling, const std::optional<ImageMeta>& art) {
  const bool is_rgb = art && (art->is_rgb || !art->is_cmyk);
  const bool linear = !resampling.color_hard() && resampling.color_resampling_linear_light && is_rgb;
  return std::string("colour ") + (resampling.color_hard() ? "hard" : "smooth") +
         (linear ? " in linear light" : "") + ", white " + (resampling.white_hard() ? "hard" : "smooth");
}

}  // namespace

void log_job_summary(const SheetPlan& plan, const std::optional<ImageMeta>& art) {
  const RipJobOptions& options = plan.options;
  log_info("Job: head ", print_head_name(options.head()), ", mode ", plan.mode.id, " (", plan.mode.x_dpi,
           " x ", plan.mode.y_dpi, " dpi, ", plan.mode.passes, " passes), slots ",
           channel_map_text(normalize_channel_map(options.head(), options.output_channel_map)));
  log_info("Job: sheet of ", size_text(plan.size.width_in, plan.size.height_in));
  if (plan.layout.items.size() == 1 && art) {
    const LayoutItem& item = plan.layout.items.front();
    const ImageProbeInfo image = probe_image(item.path);
    log_art(item, image);
    log_info("Job: colour: ", colour_text(*art, plan.icc),
             image.has_profile ? "; the profile inside the file is not used" : "");
    log_info("Job: white: ", white_text(*art, options));
  } else if (plan.layout.items.size() == 1) {
    log_info("Job: art that can't be read");
  } else {
    log_info("Job: ", plan.layout.items.size(), " images on the sheet");
  }
  log_info("Job: white choke: ", choke_text(plan));
  log_info("Job: white ink limit: ", ink_limit_text(options));
  log_info("Job: resampling: ", resampling_text(options, art));
}

}  // namespace nvo
