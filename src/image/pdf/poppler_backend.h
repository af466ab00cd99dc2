#pragma once

#include <chrono>
#include <cstdint>

#include "image/pdf/pdf_backend.h"

namespace nvo {

/// How long Poppler's programs may take, by the clock and by the processor. A small file, up to 1 MiB, gets
/// 45 seconds for its page whatever it holds; with two looks at its size that is less than a minute. An
/// honest gang sheet takes longer, for its pixels and its images, and is larger: each further MiB buys up to
/// a minute, but not more than a second for a million pixels and two for a MiB.
std::chrono::milliseconds poppler_info_time(std::uint64_t file_bytes);
std::chrono::milliseconds poppler_page_time(std::uint64_t file_bytes, std::uint64_t pixels);

/// Renders with Poppler's programs `pdfinfo` and `pdftocairo` in child processes with limits on time and
/// memory, so that hostile files are parsed outside of this process. The page comes back through a pipe as
/// PNG; no file is written. A page's size is that of its crop box, after its rotation. Failures are runtime
/// errors whose text begins "PdfRenderer: "; what the programs say stands in it. They are `PdfTimeout` and
/// `MachineFailure` where a program cannot be started, is killed or runs out of time or memory. What the
/// programs say of a page that they render all the same is logged as a warning. Any thread may call it.
class PopplerBackend final : public PdfBackend {
 public:
  /// No program gets more time than `longest`.
  explicit PopplerBackend(std::chrono::milliseconds longest = std::chrono::hours(24)) : longest_(longest) {}

  PdfPageInfo probe(const PdfRequest& request) override;
  PdfRenderResult render(const PdfRequest& request, const PageWatcher& described = {}) override;

 private:
  std::chrono::milliseconds longest_;
};

}  // namespace nvo
