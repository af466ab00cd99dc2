// Any bytes as a file of one of the raster formats, of which only what the headers say is asked.

#include "image/wic_image.h"
#include "raster_fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const nvo::fuzz::MemoryFile file(data, size);
  if (!file.written()) return 0;
  const nvo::HeldLog unheard;
  nvo::png_has_trns(file.path());
  try {
    nvo::probe_wic(file.path());
  } catch (const std::exception&) {
  }
  return 0;
}
