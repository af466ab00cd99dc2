// Any bytes as a PNG file, down to its last row. Only exceptions may come of it, and what libpng
// makes of it.

#include "raster_fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nvo::fuzz::compare_png_decoders(data, size);
  return 0;
}
