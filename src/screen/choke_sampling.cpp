#include "screen/choke_sampling.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <functional>

#include "plan/thread_pool.h"

namespace nvo {
namespace {

using Word = std::uint64_t;

constexpr std::uint8_t kLeastColour = 3;  ///< coverage below this counts as bare film

/// Bits of eight bytes that are at least `least` (1 to 128), lowest bit for the first byte.
Word bytes_at_least(const std::uint8_t* bytes, std::uint8_t least) {
  Word eight = 0;
  for (int i = 0; i < 8; ++i) eight |= Word{bytes[i]} << (8 * i);
  constexpr Word kEachByte = 0x0101010101010101, kHighBits = 0x8080808080808080;
  const Word reached = (eight | ((eight & ~kHighBits) + kEachByte * (0x80u - least))) & kHighBits;
  return (reached >> 7) * 0x0102040810204080 >> 56;
}

/// Samples rows of source bytes at the device columns, as bits.
class ColumnSampler {
 public:
  ColumnSampler(std::uint32_t src_w, std::uint32_t dev_w)
      : src_w_(src_w), first_column_(std::size_t{src_w} + 1), source_bits_(std::size_t{src_w} / 64 + 1) {
    std::uint32_t column = 0;
    for (std::uint32_t source = 0; source <= src_w; ++source) {
      while (column < dev_w && nearest_source_index(column, dev_w, src_w) < source) ++column;
      first_column_[source] = column;
    }
    edges_.resize(std::size_t{dev_w} / 64 + 1);
  }

  /// Sets the dots of `out`, a clear row, whose source byte is at least `least`. False if there are none.
  bool sample(const std::uint8_t* bytes, std::uint8_t least, Word* out, std::size_t out_words) {
    threshold(bytes, least);
    if (!mark_edges()) return false;
    fill_between_edges(out, out_words);
    return true;
  }

 private:
  void threshold(const std::uint8_t* bytes, std::uint8_t least) {
    std::ranges::fill(source_bits_, 0);
    const std::uint32_t whole = src_w_ / 8 * 8;
    for (std::uint32_t x = 0; x < whole; x += 8)
      source_bits_[x / 64] |= bytes_at_least(bytes + x, least) << (x % 64);
    for (std::uint32_t x = whole; x < src_w_; ++x)
      source_bits_[x / 64] |= Word{bytes[x] >= least} << (x % 64);
  }

  /// Device columns where a run of set dots begins or ends. Runs that no column samples cancel out.
  bool mark_edges() {
    std::ranges::fill(edges_, 0);
    bool any = false;
    Word previous = 0;
    for (std::size_t i = 0; i < source_bits_.size(); ++i) {
      Word changes = source_bits_[i] ^ (source_bits_[i] << 1 | previous >> 63);
      previous = source_bits_[i];
      any |= changes != 0;
      for (; changes != 0; changes &= changes - 1) {
        const std::uint32_t column = first_column_[i * 64 + std::countr_zero(changes)];
        edges_[column / 64] ^= Word{1} << (column % 64);
      }
    }
    return any;
  }

  void fill_between_edges(Word* out, std::size_t out_words) const {
    Word inside = 0;  // all ones while a run goes on
    for (std::size_t i = 0; i < out_words; ++i) {
      Word parity = edges_[i];
      for (int shift = 1; shift < 64; shift *= 2) parity ^= parity << shift;
      out[i] = parity ^ inside;
      inside = ~(out[i] >> 63) + 1;
    }
  }

  std::uint32_t src_w_;
  std::vector<std::uint32_t>
      first_column_;  ///< first device column that samples a source column or one behind it
  std::vector<Word> source_bits_, edges_;
};

/// Takes the masks of a strip from the source grid to the device grid.
class StripSampler {
 public:
  StripSampler(const DeviceChokeInput& input, const ChokeRowMap& row_map, ChokeContext& context)
      : input_(input), row_map_(row_map), context_(context) {}

  /// Device rows `begin` up to `end` of the context; rows of different calls are independent.
  void sample_rows(std::size_t begin, std::size_t end) {
    ColumnSampler columns(input_.src_w, context_.width);
    for (std::size_t y = begin; y < end; ++y) {
      if (y > begin && row_map_.first_equal[y] != y)
        for (BitPlane* plane : planes()) repeat_row_above(*plane, y);
      else
        sample_row(columns, y);
    }
  }

  bool any_exempt() const { return any_exempt_; }

 private:
  std::array<BitPlane*, 4> planes() const {
    return {&context_.colour_core, &context_.exempt, &context_.support, &context_.light};
  }

  static void repeat_row_above(BitPlane& plane, std::size_t y) {
    if (!plane.empty()) std::copy_n(plane.row(y - 1), plane.words_per_row, plane.row(y));
  }

  void sample_row(ColumnSampler& columns, std::size_t y) {
    const std::size_t at = std::size_t{row_map_.source[y]} * input_.src_w;
    const std::size_t words = context_.colour_core.words_per_row;
    const auto sample = [&](const std::uint8_t* plane, std::uint8_t least, BitPlane& out) {
      return plane != nullptr && columns.sample(plane + at, least, out.row(y), words);
    };
    sample(input_.coverage, kLeastColour, context_.colour_core);
    const bool exempt = sample(input_.exempt_mask, 1, context_.exempt);
    if (exempt) any_exempt_ = true;
    if (!context_.adaptive) return;

    sample(input_.support_plane, 1, context_.support);
    Word* support = context_.support.row(y);
    if (context_.protect_light) {
      sample(input_.light_mask, 1, context_.light);
      Word* light = context_.light.row(y);
      // Without light areas, white that no colour covers counts as light.
      const Word* core = context_.colour_core.row(y);
      if (input_.light_mask == nullptr)
        for (std::size_t i = 0; i < words; ++i) light[i] = support[i] & ~core[i];
    }
    if (exempt) std::transform(support, support + words, context_.exempt.row(y), support, std::bit_or<>());
  }

  const DeviceChokeInput& input_;
  const ChokeRowMap& row_map_;
  ChokeContext& context_;
  std::atomic<bool> any_exempt_ = false;
};

}  // namespace

ChokeRowMap::ChokeRowMap(const DeviceChokeInput& input, std::uint32_t dev_h, DeviceRows rows) {
  const std::uint64_t first = input.strip_src_y, last = first + input.strip_rows - 1;
  for (std::uint32_t y = 0; y < rows.end - rows.first; ++y) {
    const std::uint64_t row = nearest_source_index(rows.first + y, dev_h, input.total_src_rows);
    source.push_back(static_cast<std::uint32_t>(std::clamp(row, first, last) - first));
    first_equal.push_back(y > 0 && source[y] == source[y - 1] ? first_equal[y - 1] : y);
  }
}

void sample_choke_masks(const DeviceChokeInput& input, const ChokeRowMap& row_map, std::uint32_t threads,
                        ChokeContext& context) {
  context.colour_core = BitPlane(context.width, context.height);
  if (input.exempt_mask != nullptr) context.exempt = BitPlane(context.width, context.height);
  if (context.adaptive) context.support = BitPlane(context.width, context.height);
  if (context.protect_light) context.light = BitPlane(context.width, context.height);
  StripSampler sampler(input, row_map, context);
  parallel_ranges(context.height, threads,
                  [&](std::size_t begin, std::size_t end, std::size_t) { sampler.sample_rows(begin, end); });
  if (!sampler.any_exempt()) context.exempt = {};
}

}  // namespace nvo
