#include "compose/item_outcome.h"

#include <algorithm>

namespace nvo {
namespace {

constexpr std::uint32_t kTallyStep = 8;  ///< source pixels, both ways
constexpr std::uint8_t kLeastAlpha = 128;
constexpr std::uint8_t kLeastInk = 26, kMostBareInk = 5;  ///< a tenth of full ink, and next to none
constexpr std::uint8_t kLeastFullWhite = 250, kMostNoWhite = 5;
constexpr std::uint64_t kLeastSamples = 32;  ///< of either kind; fewer prove nothing
constexpr double kLeastShareOfSamples = 0.01;
constexpr double kInkedWithoutWhite = 0.95, kBareWithFullWhite = 0.5;

double share(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(whole);
}

/// The strongest ink of a pixel.
class InkSampler {
 public:
  InkSampler(const SourceView& view, bool is_rgb, std::uint32_t y) : is_rgb_(is_rgb) {
    for (const ChannelView& channel : view.color) channels_.push_back(channel.row(y));
  }
  std::uint8_t at(std::size_t x) const {
    std::uint8_t ink = 0;
    for (const SampleRow& channel : channels_) {
      const std::uint8_t sample = channel.at(x);
      ink = std::max(ink, is_rgb_ ? static_cast<std::uint8_t>(255 - sample) : sample);
    }
    return ink;
  }

 private:
  bool is_rgb_;
  std::vector<SampleRow> channels_;
};

}  // namespace

WhiteTally& WhiteTally::operator+=(const WhiteTally& other) {
  inked += other.inked;
  inked_without_white += other.inked_without_white;
  bare += other.bare;
  bare_with_full_white += other.bare_with_full_white;
  return *this;
}

WhiteTally tally_white(const SourceView& view, const ItemTraits& traits, const IndexRange& rows,
                       std::uint32_t width) {
  WhiteTally tally;
  const bool has_alpha = traits.alpha_active && view.alpha.exists();
  const std::uint32_t first = (rows.begin + kTallyStep - 1) / kTallyStep * kTallyStep;
  for (std::uint64_t y = first; y < rows.end; y += kTallyStep) {
    const auto row = static_cast<std::uint32_t>(y);
    const InkSampler inks(view, traits.is_rgb, row);
    const SampleRow white = view.coverage.row(row);
    const SampleRow alpha = has_alpha ? view.alpha.row(row) : SampleRow();
    for (std::uint64_t x = 0; x < width; x += kTallyStep) {
      if (has_alpha && alpha.at(x) < kLeastAlpha) continue;
      const std::uint8_t ink = inks.at(x);
      if (ink >= kLeastInk) {
        ++tally.inked;
        tally.inked_without_white += white.at(x) <= kMostNoWhite ? 1 : 0;
      } else if (ink <= kMostBareInk) {
        ++tally.bare;
        tally.bare_with_full_white += white.at(x) >= kLeastFullWhite ? 1 : 0;
      }
    }
  }
  return tally;
}

bool looks_inverted(const WhiteTally& tally) {
  const std::uint64_t fewer = std::min(tally.inked, tally.bare);
  return fewer >= kLeastSamples && share(fewer, tally.inked + tally.bare) >= kLeastShareOfSamples &&
         share(tally.inked_without_white, tally.inked) > kInkedWithoutWhite &&
         share(tally.bare_with_full_white, tally.bare) > kBareWithFullWhite;
}

void ItemOutcome::add(const ItemOutcome& other) {
  on_sheet |= other.on_sheet;
  painted |= other.painted;
  inked |= other.inked;
  white_is_alpha |= other.white_is_alpha;
  if (failure.empty()) failure = other.failure;
  failed_rows.insert(failed_rows.end(), other.failed_rows.begin(), other.failed_rows.end());
  white += other.white;
}

IndexRange ItemOutcome::missing_span() const {
  if (failed_rows.empty()) return {};
  IndexRange span = failed_rows.front();
  for (const IndexRange& rows : failed_rows)
    span = {std::min(span.begin, rows.begin), std::max(span.end, rows.end)};
  return span;
}

std::uint32_t ItemOutcome::missing_rows() const {
  std::vector<IndexRange> sorted = failed_rows;
  std::ranges::sort(sorted, {}, &IndexRange::begin);
  std::uint32_t rows = 0, end = 0;
  for (const IndexRange& range : sorted) {
    rows += IndexRange{std::max(range.begin, end), range.end}.size();
    end = std::max(end, range.end);
  }
  return rows;
}

}  // namespace nvo
