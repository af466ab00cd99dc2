#pragma once

#include <cstdint>

namespace nvo {

/// What the full-buffer path would hold at once.
struct FullBufferNeeds {
  std::uint32_t src_w = 0, src_h = 0;
  std::uint32_t dev_w = 0, dev_h = 0;
  bool device_choke = false;
  bool light_protection = false;
  bool parallel_channels = false;
  bool color_hard = false;
  bool white_hard = false;
};

/// Bytes of all its buffers. Throws "StreamRip: … size overflow" where 64 bits don't hold them.
std::uint64_t full_buffer_bytes(const FullBufferNeeds& needs);

/// Throws when the estimate exceeds 2 GiB, naming both sizes.
void require_full_buffer_fits(const FullBufferNeeds& needs);

/// What the streaming path's largest strip depends on.
struct StripNeeds {
  std::uint32_t src_w = 0, dev_w = 0;
  std::uint32_t dev_rows = 0;  ///< with the halo
  bool device_choke = false;
  std::uint32_t src_rows = 0;  ///< with the halo
  bool light_protection = false;
};

/// Bytes that screening takes for its rows beside the strip itself, however few rows that has, with one
/// thread an ink. More threads take more, but never decide what is printed.
std::uint64_t row_buffer_bytes(const StripNeeds& needs);

/// Bytes of the strip's planes, masks and row buffers, for a strip that fits.
std::uint64_t strip_bytes(const StripNeeds& needs);

/// Throws where a channel of the strip exceeds 2 GiB, or its row buffers 4 GiB: the latter names both sizes.
void require_strip_fits(const StripNeeds& needs);

}  // namespace nvo
