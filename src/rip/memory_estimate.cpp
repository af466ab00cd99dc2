#include "rip/memory_estimate.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include "core/checked.h"
#include "screen/drop_map.h"

namespace nvo {
namespace {

constexpr std::uint64_t kFullBufferCap = 2147483648;
constexpr double kMebibyte = 1048576.0;
constexpr std::uint64_t kChannels = 5;

constexpr std::uint64_t kRowBufferCap = 4294967296;
constexpr std::uint64_t kBandsInWork = 2;
// Bytes that a row worker takes for a source pixel and for a dot: codes, mixed and blended ink, and in a
// choked colour the memory of ring dots. The columns' taps are shared by all.
constexpr std::uint64_t kRowBytesOfPixel = 20, kRowBytesOfDot = 10, kRingBytesOfDot = 16;
constexpr std::uint64_t kTapBytesOfPixel = 8, kTapBytesOfDot = 33;

[[noreturn]] void fail_size(const char* label) {
  throw std::runtime_error(std::string("StreamRip: ") + label + " size overflow");
}

void require_below(const char* text, std::uint64_t estimate, std::uint64_t cap) {
  if (estimate <= cap) return;
  std::ostringstream message;
  message << text << static_cast<double>(estimate) / kMebibyte << " MiB > cap "
          << static_cast<double>(cap) / kMebibyte << " MiB";
  throw std::runtime_error(message.str());
}

std::uint64_t times(std::uint64_t a, std::uint64_t b, const char* label) {
  const auto product = checked_product(a, b);
  if (!product) fail_size(label);
  return *product;
}

std::uint64_t plus(std::uint64_t a, std::uint64_t b, const char* label) {
  const auto sum = checked_sum(a, b);
  if (!sum) fail_size(label);
  return *sum;
}

/// Five inks and the mark of explicit white, colour coverage, light areas.
std::uint64_t source_planes(bool device_choke, bool light_protection) {
  if (!device_choke) return 6;
  return light_protection ? 8 : 7;
}

// Filtered copies of the sheet: one for each way of sampling in parallel, or a single one that is used in
// turn.
std::uint64_t density_contexts(const FullBufferNeeds& needs) {
  if (needs.parallel_channels) return (needs.color_hard ? 0u : 4u) + (needs.white_hard ? 0u : 1u);
  return needs.color_hard && needs.white_hard ? 0 : 1;
}

}  // namespace

std::uint64_t full_buffer_bytes(const FullBufferNeeds& needs) {
  const std::uint64_t source_px = times(needs.src_w, needs.src_h, "full-buffer source pixel");
  const std::uint64_t device_px = times(needs.dev_w, needs.dev_h, "full-buffer device pixel");
  const std::uint64_t source_bytes = times(
      source_px, source_planes(needs.device_choke, needs.light_protection), "full-buffer source buffer");
  const std::uint64_t device_bytes = times(device_px, kChannels, "full-buffer device dropmap");
  const std::uint64_t main = plus(source_bytes, device_bytes, "full-buffer memory estimate");
  const std::uint64_t horizontal = times(needs.src_h, needs.dev_w, "full-buffer horizontal density");
  const std::uint64_t workers = needs.parallel_channels ? kChannels : 1;

  constexpr const char* kScratch = "full-buffer scratch estimate";
  std::uint64_t scratch = plus(
      0, times(horizontal, density_contexts(needs), "full-buffer horizontal density contexts"), kScratch);
  if (needs.device_choke)
    scratch = plus(scratch, times(device_px, workers, "full-buffer density-device contexts"), kScratch);
  scratch = plus(scratch, times(needs.dev_w, workers, "full-buffer density-row contexts"), kScratch);
  return plus(main, times(scratch, sizeof(float), "full-buffer scratch byte"), "full-buffer memory estimate");
}

void require_full_buffer_fits(const FullBufferNeeds& needs) {
  require_below("StreamRip full-buffer memory cap exceeded: estimate ", full_buffer_bytes(needs),
                kFullBufferCap);
}

std::uint64_t row_buffer_bytes(const StripNeeds& needs) {
  std::uint64_t of_dot = kBandsInWork * kChannels * kRowBytesOfDot + kTapBytesOfDot;
  if (needs.device_choke) of_dot += kBandsInWork * (kChannels - 1) * kRingBytesOfDot;
  constexpr std::uint64_t kOfPixel = kBandsInWork * kChannels * kRowBytesOfPixel + kTapBytesOfPixel;
  return needs.dev_w * of_dot + needs.src_w * kOfPixel;  // 32 bits times a few hundred
}

std::uint64_t strip_bytes(const StripNeeds& needs) {
  constexpr std::uint64_t kChokeMasks = 6, kDotsOfWord = 64, kWordBytes = 8;
  const std::uint64_t source_bytes =
      std::uint64_t{needs.src_w} * needs.src_rows * source_planes(needs.device_choke, needs.light_protection);
  const std::uint64_t mask_row = (needs.dev_w + kDotsOfWord - 1) / kDotsOfWord * kWordBytes;
  const std::uint64_t mask_bytes = needs.device_choke ? kChokeMasks * mask_row * needs.dev_rows : 0;
  return source_bytes + mask_bytes + row_buffer_bytes(needs);
}

void require_strip_fits(const StripNeeds& needs) {
  checked_drop_map_bytes(needs.dev_w, needs.dev_rows);
  require_below("StreamRip: the sheet is too wide: the buffers of its rows would take ",
                row_buffer_bytes(needs), kRowBufferCap);
}

}  // namespace nvo
