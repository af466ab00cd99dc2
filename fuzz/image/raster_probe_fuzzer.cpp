// Any bytes as a file of one of the raster formats, of which only what the headers say is asked.

#include "raster_fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nvo::fuzz::probe_header(data, size);
  return 0;
}
