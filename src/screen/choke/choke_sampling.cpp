#include "screen/choke/choke_sampling.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <functional>

#include "core/threads/parallel.h"
#include "screen/kernels/instruction_set.h"

namespace nvo {
namespace {

using Word = std::uint64_t;

constexpr std::size_t kLeastGroupsOfPart = 64;
constexpr std::uint8_t kLeastColour = 3;  ///< coverage below this counts as bare film

/// Sets bits `begin` up to `end` of a row.
void set_bits(Word* row, std::uint32_t begin, std::uint32_t end) {
  if (begin >= end) return;
  const std::uint32_t first = begin / 64, last = (end - 1) / 64;
  const Word from_begin = ~Word{0} << (begin % 64), to_end = ~Word{0} >> (63 - (end - 1) % 64);
  if (first == last) {
    row[first] |= from_begin & to_end;
    return;
  }
  row[first] |= from_begin;
  std::fill(row + first + 1, row + last, ~Word{0});
  row[last] |= to_end;
}

/// Samples rows of source bytes at the device columns, as bits.
class ColumnSampler {
 public:
  ColumnSampler(std::uint32_t src_w, std::uint32_t dev_w)
      : kernels_(active_instruction_set().screening),
        src_w_(src_w),
        first_column_(std::size_t{src_w} + 1),
        source_bits_(std::size_t{src_w} / 64 + 1) {
    std::uint32_t column = 0;
    for (std::uint32_t source = 0; source <= src_w; ++source) {
      while (column < dev_w && nearest_source_index(column, dev_w, src_w) < source) ++column;
      first_column_[source] = column;
    }
  }

  /// Writes the dots of `out` whose source byte is at least `least`. False if there are none.
  bool sample(const std::uint8_t* bytes, std::uint8_t least, Word* out, std::size_t out_words) {
    kernels_.bits_at_least(bytes, least, src_w_, source_bits_.data());
    std::fill_n(out, out_words, Word{0});
    bool any = false;
    std::uint32_t run_begin = 0;
    bool in_run = false;
    Word previous = 0;
    for (std::size_t i = 0; i < source_bits_.size(); ++i) {
      // Bits where a run of set source bytes begins or ends; the last word has a clear one behind the row.
      Word changes = source_bits_[i] ^ (source_bits_[i] << 1 | previous >> 63);
      previous = source_bits_[i];
      any |= changes != 0;
      for (; changes != 0; changes &= changes - 1) {
        const std::uint32_t column =
            first_column_[i * 64 + static_cast<std::size_t>(std::countr_zero(changes))];
        if (in_run)
          set_bits(out, run_begin, column);
        else
          run_begin = column;
        in_run = !in_run;
      }
    }
    return any;
  }

 private:
  const ScreeningKernels& kernels_;
  std::uint32_t src_w_;
  std::vector<std::uint32_t>
      first_column_;  ///< first device column that samples a source column or one behind it
  std::vector<Word> source_bits_;
};

/// Takes the masks of a strip from the source grid to the device grid.
class StripSampler {
 public:
  StripSampler(const DeviceChokeInput& input, const ChokeRowMap& row_map, ChokeContext& context)
      : input_(input), row_map_(row_map), context_(context) {}

  /// Groups `begin` up to `end` of equal device rows; those of different calls are independent.
  void sample_groups(std::size_t begin, std::size_t end) {
    ColumnSampler columns(input_.coverage.width(), context_.width);
    for (std::size_t group = begin; group < end; ++group) sample_row(columns, row_map_.first_rows[group]);
  }

  bool any_exempt() const { return any_exempt_; }

 private:
  void sample_row(ColumnSampler& columns, std::size_t y) {
    const std::size_t source = row_map_.source[y];
    const std::size_t words = context_.colour_core.words_per_row;
    const auto sample = [&](const PlaneView& plane, std::uint8_t least, BitPlane& out) {
      return !plane.null() && columns.sample(plane.row(source), least, out.row(y), words);
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
      if (input_.light_mask.null())
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
  const std::uint64_t first = input.strip_src_y, last = first + input.coverage.height() - 1;
  std::vector<std::uint32_t> groups;
  for (std::uint32_t y = 0; y < rows.end - rows.first; ++y) {
    const std::uint64_t row = nearest_source_index(rows.first + y, dev_h, input.total_src_rows);
    source.push_back(static_cast<std::uint32_t>(std::clamp(row, first, last) - first));
    const bool begins = y == 0 || source[y] != source[y - 1];
    if (begins) first_rows.push_back(y);
    first_equal.push_back(first_rows.back());
    groups.push_back(static_cast<std::uint32_t>(first_rows.size() - 1));
  }
  group = std::make_shared<const std::vector<std::uint32_t>>(std::move(groups));
}

void sample_choke_masks(const DeviceChokeInput& input, const ChokeRowMap& row_map, std::uint32_t threads,
                        ChokeContext& context) {
  const auto size_plane = [&](BitPlane& plane, bool wanted) {
    if (wanted)
      plane.reshape(context.width, context.height, row_map.group, row_map.first_rows.size());
    else
      plane.reshape(0, 0);
  };
  size_plane(context.colour_core, true);
  size_plane(context.exempt, !input.exempt_mask.null());
  size_plane(context.support, context.adaptive);
  size_plane(context.light, context.adaptive && context.protect_light);
  StripSampler sampler(input, row_map, context);
  const std::vector<WorkRange> parts = guided_ranges(row_map.first_rows.size(), threads, kLeastGroupsOfPart);
  parallel_tasks(parts.size(), threads, [&](std::size_t part, std::size_t) {
    sampler.sample_groups(parts[part].begin, parts[part].end);
  });
  if (!sampler.any_exempt()) context.exempt.reshape(0, 0);
}

}  // namespace nvo
