#include "compose/white_underbase.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

#include "compose/source_grid_choke.h"
#include "core/log.h"

namespace nvo {
namespace {

constexpr float kPercentPerLevel = 0.39215687f;  // 100 / 255
constexpr std::uint8_t kLeastPrintedInk = 3;     // fainter ink is noise around the motif

// Compression noise around full and no coverage does not make a mask graded.
constexpr std::uint8_t kLeastGraded = 5;
constexpr std::uint8_t kMostGraded = 250;
constexpr std::uint32_t kRowsPerRead = 256;
constexpr std::size_t kScanBlock = 4096;

struct WhiteLimit : WhiteInkLimit {
  /// White byte of a pixel with the given inks and coverage. The additions are in f32 and in this order.
  std::uint8_t operator()(std::uint8_t c, std::uint8_t m, std::uint8_t y, std::uint8_t k,
                          std::uint8_t white) const {
    const float coverage = static_cast<float>(white) / 255.0f;
    const float used = ((percent(m) + percent(c)) + percent(y)) + percent(k);
    const float room = total_ink_budget_pct - used;
    float allowed = max_white_pct > room ? room : max_white_pct;
    allowed = allowed > 0.0f ? allowed : 0.0f;
    const float wanted = max_white_pct * coverage;
    float value = allowed < wanted ? allowed : wanted;
    const float floor = min_white_pct * coverage;
    value = floor > value ? floor : value;
    if (!(max_white_pct > 0.0f && value > 0.0f)) return 0;
    return to_byte((value / max_white_pct) * 255.0f + 0.5f);
  }

 private:
  static float percent(std::uint8_t ink) { return static_cast<float>(ink) * kPercentPerLevel; }

  /// Settings that are infinite give a level that is no number; that is no white.
  static std::uint8_t to_byte(float level) {
    const float bounded = level < 255.0f ? level : 255.0f;
    return level > 0.0f ? static_cast<std::uint8_t>(bounded) : 0;
  }
};

void limit_white(StripBuffer& strip, const WhiteLimit& limit) {
  // Where nothing is transparent coverage tells nothing about the motif, so colour alone decides what is
  // printed.
  const bool any_partial =
      std::ranges::any_of(strip.planes[kChannelW], [](std::uint8_t w) { return w < 255; });

  for (std::uint32_t row = 0; row < strip.height; ++row) {
    const std::uint8_t* c = strip.ink(kChannelC).row(row);
    const std::uint8_t* m = strip.ink(kChannelM).row(row);
    const std::uint8_t* y = strip.ink(kChannelY).row(row);
    const std::uint8_t* k = strip.ink(kChannelK).row(row);
    const std::uint8_t* explicit_white = strip.explicit_view().row(row);
    std::uint8_t* white = strip.ink(kChannelW).row(row);
    for (std::size_t x = 0; x < strip.width; ++x) {
      if (explicit_white[x]) continue;
      const bool inked = std::max({c[x], m[x], y[x], k[x]}) >= kLeastPrintedInk;
      const bool printed = inked || (any_partial && white[x] != 0);
      white[x] = printed ? limit(c[x], m[x], y[x], k[x], white[x]) : std::uint8_t{0};
    }
  }
}

/// The complement of a graded value is graded, so coverage and stored white are tested alike.
bool is_graded(std::uint8_t value) {
  return value >= kLeastGraded && value <= kMostGraded;
}

bool has_graded(std::span<const std::uint8_t> values) {
  for (std::size_t at = 0; at < values.size(); at += kScanBlock) {
    // No exit inside a block: that lets the compiler test many bytes at a time.
    bool graded = false;
    for (const std::uint8_t value : values.subspan(at, std::min(kScanBlock, values.size() - at)))
      graded |= is_graded(value);
    if (graded) return true;
  }
  return false;
}

bool has_graded_sample(const std::uint8_t* sample, std::uint64_t pixels, std::size_t channels) {
  for (std::uint64_t i = 0; i < pixels; ++i, sample += channels)
    if (is_graded(*sample)) return true;
  return false;
}

}  // namespace

void apply_white_underbase(StripBuffer& strip, std::uint32_t dpi, const WhiteUnderbaseParams& params) {
  const bool choke_wanted = params.choke_enabled && params.choke_amount_px_at_300dpi > 0.0f &&
                            params.choke_strategy != WhiteChokeStrategy::production;
  if (params.white_ink_limit_enabled) limit_white(strip, {params});
  if (choke_wanted) {
    apply_source_grid_choke(strip, dpi, params.choke_amount_px_at_300dpi, params.choke_strategy, nullptr,
                            nullptr);
  }
}

bool coverage_is_binary(const LoadedImage& image) {
  const std::uint64_t pixels = std::uint64_t{image.width} * image.height;
  if (pixels == 0) return false;
  return !has_graded(
      std::span(image.white_coverage).first(std::min<std::uint64_t>(pixels, image.white_coverage.size())));
}

bool coverage_is_binary(RasterSource& source, const std::string& path) {
  const ImageMeta& meta = source.metadata();
  if (!source.supports_row_reads() || meta.width == 0 || meta.height == 0 || meta.channel_count == 0)
    return false;
  int channel = meta.role_index(ChannelRole::white);
  if (channel < 0) channel = meta.role_index(ChannelRole::alpha);
  if (channel < 0 || channel >= meta.channel_count) return true;

  std::vector<std::uint8_t> rows;
  std::string error;
  for (std::uint32_t y = 0; y < meta.height;) {
    const std::uint32_t count = std::min(kRowsPerRead, meta.height - y);
    if (!source.read_rows(y, count, rows, &error)) {
      log_warn("StripCompositor: white coverage classification row read failed for '", path, "': ", error);
      return false;
    }
    const std::uint64_t pixels = std::uint64_t{count} * meta.width;
    if (rows.size() < pixels * meta.channel_count) {
      log_warn("StripCompositor: white coverage classification short row read for '", path, "'");
      return false;
    }
    if (has_graded_sample(rows.data() + channel, pixels, meta.channel_count)) return false;
    y += count;
  }
  return true;
}

}  // namespace nvo
