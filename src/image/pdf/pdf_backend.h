#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core/machine_failure.h"
#include "image/pdf/pdf_page.h"

namespace nvo {

/// The largest file that is rendered.
inline constexpr std::uint64_t kMaxPdfBytes = 536'870'912;

/// One page of one file at one resolution, already checked by `PdfRenderer`.
struct PdfRequest {
  std::string path;
  std::uint32_t page_index = 0;  ///< 0-based
  float dpi = 0.0f;              ///< finite and above 0
};

/// A page that takes longer than it may. The machine is at its end, not the file: a job that meets this ends.
class PdfTimeout : public MachineFailure {
 public:
  using MachineFailure::MachineFailure;
};

/// Is told of a page before its pixels are made, on the calling thread.
using PageWatcher = std::function<void(const PdfPageInfo&)>;

/// Something that turns pages into pixels. It knows nothing of spot colours: of the results it fills the
/// page's numbers and `rgba`, on a transparent background. Failures are exceptions.
class PdfBackend {
 public:
  virtual ~PdfBackend() = default;
  virtual PdfPageInfo probe(const PdfRequest& request) = 0;
  virtual PdfRenderResult render(const PdfRequest& request, const PageWatcher& described = {}) = 0;
};

}  // namespace nvo
