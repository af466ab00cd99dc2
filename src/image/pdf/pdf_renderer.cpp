#include "image/pdf/pdf_renderer.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"
#include "core/text.h"
#include "core/threads/started_work.h"
#include "image/pdf/pdfium_backend.h"
#include "image/pdf/poppler_backend.h"
#include "image/pdf/spot_candidate_scan.h"
#include "image/pdf/spot_white.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

/// A file that isn't there passes; the back-ends report it in their own words. What might be waited for does
/// not.
void check_file(const std::string& path) try {
  const fs::path file = platform::to_path(path);
  const fs::file_status status = fs::status(file);
  if (!fs::is_regular_file(status)) {
    if (fs::exists(status) && !fs::is_directory(status))
      throw std::runtime_error("PdfRenderer: not a regular file: " + path);
    return;
  }
  std::error_code error;
  const std::uint64_t size = fs::file_size(file, error);
  if (error && !platform::tells_of_path(error.value())) fail_on_file("examine", path, error.value());
  if (error) throw std::runtime_error("PdfRenderer: cannot inspect PDF file size before render: " + path);
  if (size > kMaxPdfBytes)
    throw std::runtime_error("PdfRenderer: PDF file exceeds 512 MiB safety cap: " + path);
} catch (const fs::filesystem_error& error) {
  if (!platform::tells_of_path(error.code().value())) throw;
  throw std::runtime_error(std::string("PdfRenderer: cannot inspect PDF file before render: ") +
                           error.what());
}

PdfRequest checked_request(const std::string& path, std::uint32_t page_index, float dpi) {
  if (lower_extension(path) != "pdf") throw std::runtime_error("PdfRenderer: expected a .pdf file: " + path);
  if (!std::isfinite(dpi) || dpi <= 0.0f)
    throw std::runtime_error("PdfRenderer: dpi must be a positive finite value");
  check_file(path);
  return {path, page_index, dpi};
}

/// Stays the same as long as the file does.
std::string memo_key(const std::string& path) {
  const fs::path file = platform::to_path(path);
  std::error_code error;
  const fs::path canonical = fs::canonical(file, error);
  if (error) return path;
  const std::uint64_t size = fs::file_size(file, error);
  if (error) return path;
  const auto time = fs::last_write_time(file, error);
  if (error) return path;
  return platform::to_utf8(canonical) + "|" + std::to_string(size) + "|" +
         std::to_string(time.time_since_epoch().count());
}

bool has_translucent_pixel(const std::vector<std::uint8_t>& rgba) {
  for (std::size_t i = 3; i < rgba.size(); i += 4)
    if (rgba[i] != 255) return true;
  return false;
}

/// What the file's own text tells of a page; the renderer has no part in it.
struct PageWhite {
  bool has_candidate = false;
  SpotWhiteResult spot;
};

PageWhite find_white(const PdfRequest& request, std::uint32_t width, std::uint32_t height) {
  return {file_has_spot_candidate(request.path),
          extract_spot_white(request.path, request.page_index, width, height)};
}

void add_white(PageWhite white, PdfRenderResult& result) {
  result.has_spot_candidate = white.has_candidate;
  result.has_spot_white = !white.spot.spot_white_coverage.empty();
  result.spot_white_coverage = std::move(white.spot.spot_white_coverage);
  result.process_alpha_coverage = std::move(white.spot.process_alpha_coverage);
  result.spot_status = std::move(white.spot.status);
  result.facts = white.spot.facts;
}

}  // namespace

PdfRenderer::PdfRenderer(PdfiumLibrary& pdfium, std::unique_ptr<PdfBackend> fallback)
    : library_(pdfium), fallback_(std::move(fallback)) {
  if (pdfium.available()) pdfium_ = std::make_unique<PdfiumBackend>(pdfium);
}

PdfRenderer& PdfRenderer::instance() {
  static PdfRenderer renderer(PdfiumLibrary::instance(), std::make_unique<PopplerBackend>());
  return renderer;
}

PdfPageInfo PdfRenderer::probe(const std::string& path, std::uint32_t page_index, float dpi) {
  const PdfRequest request = checked_request(path, page_index, dpi);
  PdfPageInfo page =
      run<PdfPageInfo>("probe", request, [&](PdfBackend& backend) { return backend.probe(request); });
  page.has_spot_candidate = file_has_spot_candidate(path);
  return page;
}

PdfRenderResult PdfRenderer::render(const std::string& path, std::uint32_t page_index, float dpi) {
  const PdfRequest request = checked_request(path, page_index, dpi);
  StartedWork<PageWhite> white;  // is looked for while the page is drawn
  const auto described = [&](const PdfPageInfo& page) {
    white = start_work(
        [request, width = page.width, height = page.height] { return find_white(request, width, height); });
  };
  PdfRenderResult result = run<PdfRenderResult>(
      "render", request, [&](PdfBackend& backend) { return backend.render(request, described); });
  result.has_alpha = has_translucent_pixel(result.rgba);
  add_white(white.valid() ? white.get() : find_white(request, result.width, result.height), result);
  return result;
}

template <class Result, class Run>
Result PdfRenderer::run(const char* operation, const PdfRequest& request, const Run& run_backend) {
  const std::string key = memo_key(request.path);
  const std::string what = std::string(operation) + " '" + request.path + "'";
  if (!pdfium_) {
    log_once(operation, "PDFiumUnavailable", key,
             "PdfRenderer: PDFium backend unavailable; using Poppler fallback for " + what + ": " +
                 library_.unavailable_reason());
  } else if (!memo_.has_failed(key)) {
    log_once(operation, "PDFium", key, "PdfRenderer: selected PDFium backend for " + what);
    try {
      return run_backend(*pdfium_);
    } catch (const std::exception& failure) {
      rethrow_machine_failure();
      if (memo_.record_failure(key))
        log_warn("PdfRenderer: PDFium ", operation, " failed for '", request.path,
                 "'; falling back to Poppler: ", failure.what());
    }
  }
  // The file is what it was, so it would take as long again.
  const std::string page_key =
      key + "|" + std::to_string(request.page_index) + "|" + std::to_string(request.dpi) + "|" + operation;
  if (const auto known = memo_.timeout(page_key)) throw PdfTimeout(*known);
  log_once(operation, "Poppler", key, "PdfRenderer: selected Poppler backend for " + what);
  try {
    return run_backend(*fallback_);
  } catch (const PdfTimeout& failure) {
    memo_.record_timeout(page_key, failure.what());
    throw;
  }
}

void PdfRenderer::log_once(const char* operation, const char* backend, const std::string& key,
                           const std::string& line) {
  if (memo_.is_first(std::string(operation) + "|" + backend + "|" + key)) log_info(line);
}

}  // namespace nvo
