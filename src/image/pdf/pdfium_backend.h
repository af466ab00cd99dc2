#pragma once

#include "image/pdf/pdf_backend.h"
#include "image/pdf/pdfium_library.h"

namespace nvo {

/// Renders with PDFium inside this process. A page's size is that of its crop box, after its rotation.
/// Failures are runtime errors whose text begins "PdfRenderer(PDFium): ", but for sizes, which say
/// "PdfRenderer: ". Threads take turns.
class PdfiumBackend final : public PdfBackend {
 public:
  /// `library` is available and outlives this.
  explicit PdfiumBackend(PdfiumLibrary& library) : library_(library) {}

  PdfPageInfo probe(const PdfRequest& request) override;
  PdfRenderResult render(const PdfRequest& request, const PageWatcher& described = {}) override;

 private:
  PdfiumLibrary& library_;
};

}  // namespace nvo
