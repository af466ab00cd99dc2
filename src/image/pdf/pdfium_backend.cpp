#include "image/pdf/pdfium_backend.h"

#include <memory>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "core/file_io.h"
#include "image/pdf/pdf_page_size.h"

namespace nvo {
namespace {

constexpr int kFormatBgra = 4;
constexpr int kAnnotations = 1, kLcdText = 2;  // rendering flags
constexpr unsigned long kTransparent = 0;
constexpr std::uint32_t kSideLimit = 0x8000'0000;   // the library counts pixels in signed integers,
constexpr std::uint32_t kWidthLimit = 0x2000'0000;  // and so the bytes of a row

using Handle = std::unique_ptr<void, void (*)(void*)>;

std::string error_word(unsigned long code) {
  static constexpr const char* words[] = {"success",
                                          "unknown error",
                                          "file access error",
                                          "file format error",
                                          "password required or incorrect password",
                                          "security error",
                                          "page error"};
  return code < std::size(words) ? words[code] : "error " + std::to_string(code);
}

[[noreturn]] void fail(const std::string& text) {
  throw std::runtime_error("PdfRenderer(PDFium): " + text);
}

void check_bitmap_limits(const PdfPageInfo& page) {
  if (page.width >= kSideLimit || page.height >= kSideLimit)
    fail("requested PDF render exceeds PDFium bitmap limits");
  if (page.width >= kWidthLimit) fail("requested PDF render stride exceeds PDFium bitmap limits");
}

void swap_red_and_blue(std::span<std::uint8_t> pixels) {
  for (std::size_t i = 0; i + 4 <= pixels.size(); i += 4) std::swap(pixels[i], pixels[i + 2]);
}

/// The open page of one request. The members close in the reverse of their order.
class OpenPage {
 public:
  OpenPage(const PdfiumEntries& pdfium, const PdfRequest& request)
      : pdfium_(pdfium),
        bytes_(read_bytes(request.path)),
        document_(pdfium.load_document(bytes_.data(), bytes_.size(), nullptr), pdfium.close_document) {
    if (!document_) fail_with_cause("failed to load PDF '" + request.path + "'");
    const std::uint32_t count = checked_page_count(request);
    page_ =
        Handle(pdfium.load_page(document_.get(), static_cast<int>(request.page_index)), pdfium.close_page);
    if (!page_) fail_with_cause("failed to load page " + std::to_string(request.page_index));
    info_ = describe_pdf_page(request, count, pdfium.page_width(page_.get()), pdfium.page_height(page_.get()),
                              kPdfPoints);
    check_bitmap_limits(info_);
  }

  const PdfPageInfo& info() const { return info_; }

  std::vector<std::uint8_t> render() const {
    std::vector<std::uint8_t> pixels(rgba_bytes(info_));
    const int width = static_cast<int>(info_.width), height = static_cast<int>(info_.height);
    const Handle bitmap(pdfium_.create_bitmap(width, height, kFormatBgra, pixels.data(),
                                              static_cast<int>(rgba_stride(info_))),
                        pdfium_.destroy_bitmap);
    if (!bitmap) fail_with_cause("failed to create BGRA bitmap");
    constexpr int x = 0, y = 0, rotate = 0;
    pdfium_.fill_rect(bitmap.get(), x, y, width, height, kTransparent);
    pdfium_.render_page(bitmap.get(), page_.get(), x, y, width, height, rotate, kAnnotations | kLcdText);
    swap_red_and_blue(pixels);  // in place: a second copy of the page would be the peak of a job's memory
    return pixels;
  }

 private:
  static std::string read_bytes(const std::string& path) {
    std::string bytes;
    if (!read_file_bounded(path, kMaxPdfBytes, bytes, nullptr, nullptr))
      fail("failed to read PDF bytes or file exceeds 512 MiB cap: " + path);
    if (bytes.empty()) fail("PDF file is empty: " + path);
    return bytes;
  }

  std::uint32_t checked_page_count(const PdfRequest& request) const {
    const int count = pdfium_.page_count(document_.get());
    if (count < 1) fail("PDF has no pages: " + request.path);
    if (request.page_index >= static_cast<std::uint32_t>(count))
      fail("page index " + std::to_string(request.page_index) + " is out of range for " +
           std::to_string(count) + " page PDF: " + request.path);
    return static_cast<std::uint32_t>(count);
  }

  [[noreturn]] void fail_with_cause(const std::string& context) const {
    fail(context + ": " + error_word(pdfium_.last_error()));
  }

  const PdfiumEntries& pdfium_;
  std::string bytes_;  // the document reads from here as long as it lives
  Handle document_;
  Handle page_{nullptr, nullptr};
  PdfPageInfo info_;
};

}  // namespace

PdfPageInfo PdfiumBackend::probe(const PdfRequest& request) {
  const std::lock_guard lock(library_.calls());
  return OpenPage(library_.entries(), request).info();
}

PdfRenderResult PdfiumBackend::render(const PdfRequest& request, const PageWatcher& described) {
  const std::lock_guard lock(library_.calls());
  const OpenPage page(library_.entries(), request);
  PdfRenderResult result;
  static_cast<PdfPageInfo&>(result) = page.info();
  if (described) described(result);
  result.rgba = page.render();
  return result;
}

}  // namespace nvo
