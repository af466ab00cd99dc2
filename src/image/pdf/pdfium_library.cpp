#include "image/pdf/pdfium_library.h"

#include <system_error>
#include <type_traits>

#include "core/log.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

/// Looks all entries up; returns the first name that the library lacks, or null.
const char* bind_entries(const platform::DynamicLibrary& module, PdfiumEntries& entries) {
  const char* missing = nullptr;
  const auto bind = [&](const char* name, auto*& entry) {
    if (missing) return;
    entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(module.symbol(name));
    if (!entry) missing = name;
  };
  bind("FPDF_InitLibrary", entries.init_library);
  bind("FPDF_DestroyLibrary", entries.destroy_library);
  bind("FPDF_LoadMemDocument64", entries.load_document);
  bind("FPDF_CloseDocument", entries.close_document);
  bind("FPDF_GetPageCount", entries.page_count);
  bind("FPDF_LoadPage", entries.load_page);
  bind("FPDF_ClosePage", entries.close_page);
  bind("FPDF_GetPageWidth", entries.page_width);
  bind("FPDF_GetPageHeight", entries.page_height);
  bind("FPDFBitmap_CreateEx", entries.create_bitmap);
  bind("FPDFBitmap_Destroy", entries.destroy_bitmap);
  bind("FPDFBitmap_FillRect", entries.fill_rect);
  bind("FPDF_RenderPageBitmap", entries.render_page);
  bind("FPDF_GetLastError", entries.last_error);
  return missing;
}

/// Opens and binds; returns why that cannot be done, or nothing.
std::string load(const std::filesystem::path& folder, platform::DynamicLibrary& module,
                 PdfiumEntries& entries) {
  const std::string name = platform::library_file_name("pdfium");
  if (folder.empty())
    return name + " was not loaded because the executable path could not be resolved; looked only for " +
           name + " next to the executable";
  const std::filesystem::path file = folder / name;
  const std::string path = platform::to_utf8(file);
  std::error_code unknown;
  if (!std::filesystem::exists(file, unknown))
    return name + " was not found next to the executable at " + path;

  std::string loader_text;
  if (const int code = module.open(file, loader_text)) {
    log_debug("PdfRenderer: ", loader_text);
    return name + " next to the executable could not be loaded from " + path + " (Win32 error " +
           std::to_string(code) + ")";
  }
  if (const char* missing = bind_entries(module, entries)) {
    module.close();
    return name + " is missing required public API symbol " + missing;
  }
  return {};
}

}  // namespace

PdfiumLibrary::PdfiumLibrary(const std::filesystem::path& folder)
    : unavailable_reason_(load(folder, module_, entries_)) {
  if (!unavailable_reason_.empty()) return;
  entries_.init_library();
  available_ = true;
}

PdfiumLibrary::~PdfiumLibrary() {
  if (available_) entries_.destroy_library();
}

PdfiumLibrary& PdfiumLibrary::instance() {
  static PdfiumLibrary library(platform::executable_directory());
  return library;
}

}  // namespace nvo
