#include "image/pdf/pdf_renderer.h"

#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "image/pdf/spot_candidate_scan.h"
#include "support/failure.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Stands in for Poppler: says that it was called, and fails if told so.
class SecondBackend final : public PdfBackend {
 public:
  explicit SecondBackend(bool fails) : fails_(fails) {}
  PdfPageInfo probe(const PdfRequest& request) override { return render(request); }
  PdfRenderResult render(const PdfRequest& request) override {
    if (fails_) throw std::runtime_error("second back-end failed");
    PdfRenderResult page;
    page.page_index = request.page_index;
    page.width = page.height = 1;
    page.rgba = {1, 2, 3, 255};
    return page;
  }

 private:
  bool fails_;
};

class PdfRendererTest : public ::testing::Test {
 protected:
  PdfRenderer renderer(bool second_fails = false) {
    return {library_, std::make_unique<SecondBackend>(second_fails)};
  }
  /// A document for the fake library.
  std::string document(const std::string& orders, const std::string& name = "a.PDF") {
    write_all(dir_.file(name), orders);
    return dir_.file(name);
  }

  TempDir dir_;
  PdfiumLibrary library_{NVO_FAKE_PDFIUM};
  LogCapture log_{LogLevel::info};
};

TEST_F(PdfRendererTest, RefusesBadRequestsBeforeAnyBackend) {
  PdfRenderer pdf = renderer();
  const std::string good = document("pages=1");
  const std::string huge = dir_.file("huge.pdf");
  write_all(huge, "");
  std::filesystem::resize_file(huge, 536'870'913);
  std::filesystem::create_symlink("loop.pdf", dir_.file("loop.pdf"));
  const std::string dpi_text = "PdfRenderer: dpi must be a positive finite value";
  constexpr float infinity = std::numeric_limits<float>::infinity();
  const struct {
    std::string path;
    float dpi;
    std::string text;
  } cases[] = {
      {"a.pdf.bak", 300, "PdfRenderer: expected a .pdf file: a.pdf.bak"},
      {"pdf", 300, "PdfRenderer: expected a .pdf file: pdf"},
      {good, 0, dpi_text},
      {good, -1, dpi_text},
      {good, infinity, dpi_text},
      {good, std::nanf(""), dpi_text},
      {huge, 300, "PdfRenderer: PDF file exceeds 512 MiB safety cap: " + huge},
      {dir_.file("loop.pdf"), 300, "PdfRenderer: cannot inspect PDF file before render: filesystem error:"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(failure_of([&] { pdf.render(c.path, 0, c.dpi); }), HasSubstr(c.text));
    EXPECT_THAT(failure_of([&] { pdf.probe(c.path, 0, c.dpi); }), HasSubstr(c.text));
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PdfRendererTest, PdfiumDeliversTheWholePage) {
  ASSERT_TRUE(library_.available()) << library_.unavailable_reason();
  PdfRenderer pdf = renderer();
  const std::string path = document("pages=3 width=612 height=792");
  const PdfPageInfo info = pdf.probe(path, 2, 300);
  EXPECT_EQ(info.page_count, 3u);
  EXPECT_EQ(info.page_index, 2u);
  EXPECT_EQ(info.width, 2550u);
  EXPECT_EQ(info.height, 3300u);
  EXPECT_EQ(info.width_inches, 8.5f);
  EXPECT_EQ(info.dpi_y, 300.0f);

  const PdfRenderResult page = pdf.render(document("width=0.1 height=0.24", "b.pdf"), 0, 300);
  EXPECT_EQ(page.width, 1u) << "rounded to 0, then raised";
  EXPECT_THAT(page.rgba, ElementsAre(30, 20, 10, 200));
  EXPECT_TRUE(page.has_alpha);
  EXPECT_FALSE(page.has_spot_white);
  EXPECT_THAT(page.spot_status, Not(IsEmpty()));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre("[INFO ] PdfRenderer: selected PDFium backend for probe '" + path + "'",
                  "[INFO ] PdfRenderer: selected PDFium backend for render '" + dir_.file("b.pdf") + "'"));
}

TEST_F(PdfRendererTest, FailuresOfPdfiumFallThroughWithTheirReason) {
  const std::string module = "PdfRenderer(PDFium): ";
  const std::string path = dir_.file("a.pdf");
  const struct {
    const char* orders;
    std::uint32_t index;
    std::string text;
  } cases[] = {
      {"", 0, module + "PDF file is empty: " + path},
      {"load_error=3", 0, module + "failed to load PDF '" + path + "': file format error"},
      {"load_error=4", 0,
       module + "failed to load PDF '" + path + "': password required or incorrect password"},
      {"load_error=77", 0, module + "failed to load PDF '" + path + "': error 77"},
      {"pages=0", 0, module + "PDF has no pages: " + path},
      {"pages=-1", 0, module + "PDF has no pages: " + path},
      {"pages=2", 2, module + "page index 2 is out of range for 2 page PDF: " + path},
      {"pages=2", 0xFFFFFFFF, module + "page index 4294967295 is out of range for 2 page PDF: " + path},
      {"pages=2 page_error=6", 1, module + "failed to load page 1: page error"},
      {"bitmap_error=1", 0, module + "failed to create BGRA bitmap: unknown error"},
      {"width=0", 0, module + "invalid PDF page width in points"},
      {"height=nan", 0, module + "invalid PDF page height in points"},
      {"width=1e10", 0, module + "requested PDF render width is too large; lower DPI or use a smaller page"},
      {"width=1e9 height=1e9", 0, "PdfRenderer: PDF render buffer size overflow"},
      {"width=3932.4 height=3932.4", 0,
       "PdfRenderer: requested PDF render exceeds 1 GiB RGBA buffer; lower DPI or render a smaller page"},
  };
  for (const auto& c : cases) {
    PdfRenderer pdf = renderer();
    document(c.orders, "a.pdf");
    EXPECT_EQ(pdf.render(path, c.index, 300).page_index, c.index);
    EXPECT_THAT(log_.take(),
                ElementsAre("[INFO ] PdfRenderer: selected PDFium backend for render '" + path + "'",
                            "[WARN ] PdfRenderer: PDFium render failed for '" + path +
                                "'; falling back to Poppler: " + c.text,
                            "[INFO ] PdfRenderer: selected Poppler backend for render '" + path + "'"))
        << c.orders;
  }
}

TEST_F(PdfRendererTest, AFailedFileStaysWithTheOtherBackendUntilItChanges) {
  void* fake = ::dlopen(NVO_FAKE_PDFIUM "/libpdfium.so", RTLD_NOW | RTLD_NOLOAD);
  const auto load_count = reinterpret_cast<int (*)()>(::dlsym(fake, "fake_load_count"));
  const int before = load_count();
  PdfRenderer pdf = renderer();
  const std::string path = document("load_error=3");
  pdf.render(path, 0, 300);
  log_.take();
  pdf.render(path, 0, 300);
  EXPECT_THAT(log_.take(), IsEmpty());
  pdf.probe(path, 0, 300);
  EXPECT_THAT(log_.take(),
              ElementsAre("[INFO ] PdfRenderer: selected Poppler backend for probe '" + path + "'"));
  EXPECT_EQ(load_count(), before + 1);

  document("load_error=2 of another size");
  EXPECT_EQ(pdf.render(path, 0, 300).rgba.size(), 4u);
  EXPECT_TRUE(log_.contains("PDFium render failed"));
  EXPECT_EQ(load_count(), before + 2);
  ::dlclose(fake);
}

TEST_F(PdfRendererTest, TheLastFailureIsTheSecondBackends) {
  PdfRenderer pdf = renderer(true);
  EXPECT_EQ(failure_of([&] { pdf.render(document("load_error=1"), 0, 300); }), "second back-end failed");
  EXPECT_EQ(failure_of([&] { pdf.probe(dir_.file("none.pdf"), 0, 300); }), "second back-end failed");
  EXPECT_TRUE(log_.contains("PdfRenderer(PDFium): failed to read PDF bytes or file exceeds 512 MiB cap: "));
}

TEST_F(PdfRendererTest, TellsOnceWhyPdfiumIsNotThere) {
  write_all(dir_.file("libpdfium.so"), "not a library");
  const std::string empty_folder = dir_.file("empty");
  const struct {
    std::filesystem::path folder;
    std::string reason;
  } cases[] = {
      {"",
       "libpdfium.so was not loaded because the executable path could not be resolved; looked only for "
       "libpdfium.so next to the executable"},
      {empty_folder,
       "libpdfium.so was not found next to the executable at " + empty_folder + "/libpdfium.so"},
      {dir_.path(), "libpdfium.so next to the executable could not be loaded from " +
                        dir_.file("libpdfium.so") + " (Win32 error "},
      {NVO_FAKE_PDFIUM_INCOMPLETE, "libpdfium.so is missing required public API symbol FPDF_GetLastError"},
  };
  const std::string path = document("");
  for (const auto& c : cases) {
    PdfiumLibrary absent(c.folder);
    EXPECT_FALSE(absent.available());
    PdfRenderer pdf(absent, std::make_unique<SecondBackend>(false));
    for (int twice = 0; twice < 2; ++twice) EXPECT_FALSE(pdf.render(path, 0, 300).has_alpha);
    EXPECT_THAT(
        log_.take(),
        ElementsAre(HasSubstr("[INFO ] PdfRenderer: PDFium backend unavailable; using Poppler fallback for "
                              "render '" +
                              path + "': " + c.reason),
                    "[INFO ] PdfRenderer: selected Poppler backend for render '" + path + "'"));
  }
}

TEST_F(PdfRendererTest, TheCandidateScanSeesWordsAcrossItsPieces) {
  const std::string word = "/Separation /White";
  for (const std::size_t start : {0u, 1'048'560u, 1'048'576u, 2'097'150u}) {
    std::string bytes(start, ' ');
    EXPECT_TRUE(file_has_spot_candidate(document(bytes + word))) << start;
    EXPECT_FALSE(file_has_spot_candidate(document(bytes + "/Separation /Gold"))) << start;
  }
  EXPECT_FALSE(file_has_spot_candidate(document("")));
  EXPECT_FALSE(file_has_spot_candidate(dir_.file("none.pdf")));
}

}  // namespace
}  // namespace nvo::test
