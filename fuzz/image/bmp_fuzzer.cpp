// Any bytes as a BMP file, down to its last row. Only exceptions may come of it.

#include "raster_fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nvo::fuzz::decode_image(nvo::open_bmp_decoder, data, size);
  return 0;
}
