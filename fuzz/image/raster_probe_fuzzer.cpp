// Any bytes as a file of one of the raster formats, of which only size, resolution and alpha are asked.

#include "image/wic_image.h"
#include "raster_fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const nvo::fuzz::MemoryFile file(data, size);
  if (!file.written()) return 0;
  nvo::png_has_trns(file.path());
  try {
    nvo::wic_read_info(file.path());
  } catch (const std::exception&) {
  }
  return 0;
}
