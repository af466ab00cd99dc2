#pragma once

#include <chrono>

#include "image/pdf/pdf_backend.h"

namespace nvo {

/// How long Poppler's programs may take.
struct PopplerTimes {
  std::chrono::milliseconds info = std::chrono::minutes(1);
  std::chrono::milliseconds page = std::chrono::minutes(5);
};

/// Renders with Poppler's programs `pdfinfo` and `pdftocairo` in child processes with limits on time and
/// memory, so that hostile files are parsed outside of this process. The page comes back through a pipe as
/// PNG; no file is written. A page's size is that of its crop box, after its rotation. Failures are runtime
/// errors whose text begins "PdfRenderer: "; what the programs say stands in it. Any thread may call it.
class PopplerBackend final : public PdfBackend {
 public:
  explicit PopplerBackend(PopplerTimes times = {}) : times_(times) {}

  PdfPageInfo probe(const PdfRequest& request) override;
  PdfRenderResult render(const PdfRequest& request) override;

 private:
  PopplerTimes times_;
};

}  // namespace nvo
