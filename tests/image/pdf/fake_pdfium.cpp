// A library with PDFium's entries whose documents are lists of orders, as in "pages=2 width=72 height=36":
//   load_error=N, page_error=N, bitmap_error=N   that step fails with this code
//   pages=N width=POINTS height=POINTS           what the document claims
// Rendering colours the first pixel.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#define FAKE_ENTRY extern "C" __attribute__((visibility("default")))

namespace {

std::string orders;
unsigned long error_code = 0;
std::uint8_t* bitmap_pixels = nullptr;

double order(const char* name, double otherwise) {
  const std::size_t found = orders.find(std::string(name) + "=");
  return found == std::string::npos ? otherwise : std::atof(orders.c_str() + found + std::strlen(name) + 1);
}

bool fails(const char* name) {
  error_code = static_cast<unsigned long>(order(name, 0));
  return error_code != 0;
}

}  // namespace

FAKE_ENTRY void FPDF_InitLibrary() {}
FAKE_ENTRY void FPDF_DestroyLibrary() {}
FAKE_ENTRY void* FPDF_LoadMemDocument64(const void* bytes, std::size_t size, const char*) {
  orders.assign(static_cast<const char*>(bytes), size);
  return fails("load_error") ? nullptr : &orders;
}
FAKE_ENTRY void FPDF_CloseDocument(void*) {
  orders.clear();
}
FAKE_ENTRY int FPDF_GetPageCount(void*) {
  return static_cast<int>(order("pages", 1));
}
FAKE_ENTRY void* FPDF_LoadPage(void*, int) {
  return fails("page_error") ? nullptr : &orders;
}
FAKE_ENTRY void FPDF_ClosePage(void*) {}
FAKE_ENTRY double FPDF_GetPageWidth(void*) {
  return order("width", 72);
}
FAKE_ENTRY double FPDF_GetPageHeight(void*) {
  return order("height", 36);
}
FAKE_ENTRY void* FPDFBitmap_CreateEx(int, int, int, void* pixels, int) {
  bitmap_pixels = static_cast<std::uint8_t*>(pixels);
  return fails("bitmap_error") ? nullptr : pixels;
}
FAKE_ENTRY void FPDFBitmap_Destroy(void*) {}
FAKE_ENTRY void FPDFBitmap_FillRect(void*, int, int, int, int, unsigned long) {}
FAKE_ENTRY void FPDF_RenderPageBitmap(void*, void*, int, int, int, int, int, int) {
  const std::uint8_t blue_green_red_alpha[] = {10, 20, 30, 200};
  std::memcpy(bitmap_pixels, blue_green_red_alpha, 4);
}
#ifndef FAKE_LACKS_LAST_ERROR
FAKE_ENTRY unsigned long FPDF_GetLastError() {
  return error_code;
}
#endif
