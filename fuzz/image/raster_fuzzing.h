#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "core/log.h"
#include "image/decode/raster_decoder.h"
#include "image/wic_image.h"
#include "memory_file.h"

namespace nvo::fuzz {

using OpenDecoder = std::unique_ptr<RasterDecoder> (*)(ByteReader reader);

/// Any bytes as an image: all rows, or an exception.
inline void decode_image(OpenDecoder open, const std::uint8_t* data, std::size_t size) {
  constexpr std::uint64_t kMaxPixels = 4 << 20;  // larger images only cost time
  const MemoryFile file(data, size);
  if (!file.written()) return;
  const HeldLog unheard;
  try {
    const auto decoder = open(ByteReader(file.path()));
    const RasterInfo& info = decoder->info();
    if (info.width == 0 || std::uint64_t{info.width} * info.height > kMaxPixels) return;
    decoder->start();
    std::vector<std::uint8_t> row(decoder->row_bytes());
    for (std::uint32_t y = 0; y < info.height; ++y) decoder->read_row(row.data());
  } catch (const std::exception&) {
  }
}

/// Any bytes as a file of which only what the headers say is asked.
inline void probe_header(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(data, size);
  if (!file.written()) return;
  const HeldLog unheard;
  try {
    png_has_trns(file.path());
    probe_wic(file.path());
  } catch (const std::exception&) {
  }
}

}  // namespace nvo::fuzz
