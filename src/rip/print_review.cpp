#include "rip/print_review.h"

#include <cmath>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "core/env_override.h"
#include "core/log.h"

namespace nvo {
namespace {

constexpr const char* kStrict = "NVO_RIP_STRICT";

std::string quoted(const LayoutItem& item) {
  return "'" + (item.path.empty() ? item.name : item.path) + "'";
}

std::string percent(std::uint64_t part, std::uint64_t whole) {
  const double share = static_cast<double>(part) / static_cast<double>(whole);
  return std::to_string(std::lround(share * 100.0)) + " %";
}

std::string inches(std::uint32_t pixels, std::uint32_t dpi) {
  std::ostringstream text;
  text << std::round(10.0 * pixels / dpi) / 10.0;
  return text.str();
}

/// Why nothing of an image is on the film; nothing where something is.
std::optional<std::string> blank_reason(const ItemOutcome& outcome, bool any_drop) {
  if (!outcome.on_sheet) return "no part of it lies on the sheet";
  if (!outcome.inked && !outcome.failure.empty()) return "it could not be read (" + outcome.failure + ")";
  if (!outcome.painted) {
    return outcome.white_is_alpha
               ? "its white channel is empty, and without white nothing of such an image is printed"
               : "it is fully transparent";
  }
  if (!outcome.inked) return "it has no ink anywhere";
  if (!any_drop) return "curves, limits, choke and the map of slots left no dot of its ink";
  return std::nullopt;
}

/// Says what is missing of an image; false where it is whole.
bool warn_of_missing(const ItemReport& report, bool any_drop, std::uint32_t src_dpi) {
  const ItemOutcome& outcome = report.outcome;
  if (const auto reason = blank_reason(outcome, any_drop)) {
    log_warn("Nothing of ", quoted(report.item), " was printed: ", *reason,
             "; its place on the film is bare");
    return true;
  }
  if (outcome.failed_rows.empty()) return false;
  const IndexRange span = outcome.missing_span();
  log_warn("A part of ", quoted(report.item),
           " was not printed: ", percent(outcome.missing_rows(), report.height_px),
           " of its height, between ", inches(span.begin, src_dpi), " and ", inches(span.end, src_dpi),
           " inches below its top, could not be read (", outcome.failure,
           "); that place on the film is bare");
  return true;
}

void warn_of_inverted_white(const std::vector<ItemReport>& items) {
  std::map<std::string, WhiteTally> of_file;
  for (const ItemReport& report : items) of_file[quoted(report.item)] += report.outcome.white;
  for (const auto& [name, tally] : of_file)
    if (looks_inverted(tally))
      log_warn("The white channel of ", name,
               " looks inverted: ", percent(tally.inked_without_white, tally.inked),
               " of its art has no white behind it, and ", percent(tally.bare_with_full_white, tally.bare),
               " of its bare ground has full white; in the file 0 means full white and 255 none");
}

void refuse_if_strict() {
  if (is_environment_true(kStrict))
    throw std::runtime_error(std::string("art is missing from the print, and ") + kStrict +
                             " is set: no print file is left");
}

}  // namespace

void review_print(const std::vector<ItemReport>& items, bool any_drop, std::uint32_t src_dpi) {
  warn_of_inverted_white(items);
  bool missing = false;
  for (const ItemReport& report : items) missing |= warn_of_missing(report, any_drop, src_dpi);
  if (missing) refuse_if_strict();
}

void review_empty_sheet(const SheetLayout& sheet, const char* what_is_missing) {
  if (sheet.items.empty())
    log_warn("Nothing was printed: the sheet has no images and no ", what_is_missing,
             "; no print file is written");
  for (const LayoutItem& item : sheet.items)
    log_warn("Nothing of ", quoted(item), " was printed: its sheet has no ", what_is_missing,
             "; no print file is written");
  refuse_if_strict();
}

}  // namespace nvo
