#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "image/pdf/pdf_backend.h"
#include "image/pdf/pdf_backend_memo.h"
#include "image/pdf/pdf_page.h"
#include "image/pdf/pdfium_library.h"

namespace nvo {

/// Turns a page of a PDF file into RGBA pixels and the white that it sets as a spot colour. PDFium comes
/// first, where it is there; what fails in it goes to the other back-end, and the file never comes back to
/// PDFium while its size and time stay the same; nor is a page tried again that ran out of time. Paths are
/// UTF-8, pages count from 0. Failures are runtime errors, and those of `core/machine_failure.h` where they
/// are not the file's. Any thread may call it; PDFium takes one page at a time.
class PdfRenderer {
 public:
  /// `pdfium` outlives this.
  PdfRenderer(PdfiumLibrary& pdfium, std::unique_ptr<PdfBackend> fallback);

  /// The process's own: the PDFium library beside the executable, and Poppler.
  static PdfRenderer& instance();

  /// Size of a page at `dpi` dots per inch, and the number of pages.
  PdfPageInfo probe(const std::string& path, std::uint32_t page_index, float dpi);
  /// The same with pixels and white.
  PdfRenderResult render(const std::string& path, std::uint32_t page_index, float dpi);

 private:
  template <class Result, class Run>
  Result run(const char* operation, const PdfRequest& request, const Run& run_backend);
  void log_once(const char* operation, const char* backend, const std::string& key, const std::string& line);

  PdfiumLibrary& library_;
  std::unique_ptr<PdfBackend> pdfium_;  // null where the library is not available
  std::unique_ptr<PdfBackend> fallback_;
  PdfBackendMemo memo_;
};

}  // namespace nvo
