#include "image/pdf/pdf_renderer.h"

#include <cmath>
#include <functional>
#include <new>
#include <stdexcept>

#include <sys/stat.h>

#include "image/image_test.h"
#include "image/pdf/spot_candidate_scan.h"

namespace nvo::test {
namespace {

/// Stands in for Poppler: says that it was called, and fails if told so.
struct SecondBackend final : PdfBackend {
  bool fails;

  explicit SecondBackend(bool does_fail) : fails(does_fail) {}
  PdfPageInfo probe(const PdfRequest& request) override { return render(request, {}); }
  PdfRenderResult render(const PdfRequest& request, const PageWatcher&) override {
    if (fails) throw std::runtime_error("second back-end failed");
    PdfRenderResult page;
    page.page_index = request.page_index;
    page.width = page.height = 1;
    page.rgba = {1, 2, 3, 255};
    return page;
  }
};

class PdfRendererTest : public ::testing::Test {
 protected:
  /// A document for the fake library.
  std::string document(const std::string& orders, const std::string& name = "a.PDF") {
    write_all(dir_.file(name), orders);
    return dir_.file(name);
  }

  TempDir dir_;
  PdfiumLibrary library_{NVO_FAKE_PDFIUM};
  PdfRenderer pdf_{library_, std::make_unique<SecondBackend>(false)};
  LogCapture log_{LogLevel::info};
};

TEST_F(PdfRendererTest, RefusesBadRequestsBeforeAnyBackend) {
  const std::string good = document("pages=1"), huge = document("", "huge.pdf"), loop = dir_.file("loop.pdf");
  std::filesystem::resize_file(huge, 536'870'913);
  std::filesystem::create_symlink("loop.pdf", loop);
  const struct {
    std::string path, text;
    float dpi = 300;
  } cases[] = {
      {"a.pdf.bak", "expected a .pdf file: a.pdf.bak"},
      {"pdf", "expected a .pdf file: pdf"},
      {good, "dpi must be a positive finite value", 0},
      {good, "dpi must be a positive finite value", INFINITY},
      {good, "dpi must be a positive finite value", NAN},
      {huge, "PDF file exceeds 512 MiB safety cap: " + huge},
      {loop, "cannot inspect PDF file before render: filesystem error:"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(failure_of([&] { pdf_.render(c.path, 0, c.dpi); }), StartsWith("PdfRenderer: " + c.text));
    EXPECT_THAT(failure_of([&] { pdf_.probe(c.path, 0, c.dpi); }), StartsWith("PdfRenderer: " + c.text));
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PdfRendererTest, PdfiumDeliversTheWholePage) {
  ASSERT_TRUE(library_.available()) << library_.unavailable_reason();
  const std::string path = document("pages=3 width=.1 height=.24");
  const PdfRenderResult page = pdf_.render(path, 2, 300);
  EXPECT_THAT(page.rgba, ElementsAre(30, 20, 10, 200)) << "one pixel: the width is rounded to 0, then raised";
  EXPECT_THAT((std::vector{page.page_count, page.page_index}), ElementsAre(3, 2));
  EXPECT_TRUE(page.has_alpha && !page.has_spot_white);
  EXPECT_THAT(log_.lines(),
              ElementsAre("[INFO ] PdfRenderer: selected PDFium backend for render '" + path + "'"));
}

TEST_F(PdfRendererTest, FailuresOfPdfiumFallThroughWithTheirReason) {
  const std::string module = "PdfRenderer(PDFium): ", path = dir_.file("a.pdf");
  const struct {
    const char* orders;
    std::string text;
    std::uint32_t index = 0;
  } cases[] = {
      {"", module + "PDF file is empty: " + path},
      {"load_error=4", module + "failed to load PDF '" + path + "': password required or incorrect password"},
      {"pages=2", module + "page index 4294967295 is out of range for 2 page PDF: " + path, 0xFFFFFFFF},
      {"pages=2 page_error=6", module + "failed to load page 1: page error", 1},
      {"bitmap_error=1", module + "failed to create BGRA bitmap: unknown error"},
      {"width=0", module + "invalid PDF page width in points"},
      {"width=1e10", module + "requested PDF render width is too large; lower DPI or use a smaller page"},
      {"width=1e9 height=1e9", "PdfRenderer: PDF render buffer size overflow"},
  };
  for (const auto& c : cases) {
    PdfRenderer pdf(library_, std::make_unique<SecondBackend>(false));  // knows of no failure yet
    document(c.orders, "a.pdf");
    EXPECT_EQ(pdf.render(path, c.index, 300).page_index, c.index);
    const auto lines = log_.take();
    ASSERT_EQ(lines.size(), 3u) << c.orders;
    EXPECT_EQ(lines[1], "[WARN ] PdfRenderer: PDFium render failed for '" + path +
                            "'; falling back to Poppler: " + c.text);
    EXPECT_EQ(lines[2], "[INFO ] PdfRenderer: selected Poppler backend for render '" + path + "'");
  }
}

TEST_F(PdfRendererTest, AFailedFileStaysWithTheOtherBackendUntilItChanges) {
  const std::string path = document("load_error=3");
  pdf_.render(path, 0, 300);
  log_.take();
  const auto time = std::filesystem::last_write_time(path);
  document("a good file.");  // of the same size
  std::filesystem::last_write_time(path, time);
  EXPECT_EQ(pdf_.render(path, 0, 300).width, 1u);
  EXPECT_THAT(log_.take(), IsEmpty());
  EXPECT_EQ(pdf_.probe(path, 0, 300).width, 1u);
  EXPECT_THAT(log_.take(),
              ElementsAre("[INFO ] PdfRenderer: selected Poppler backend for probe '" + path + "'"));
  document("another good file");
  std::filesystem::last_write_time(path, time);
  EXPECT_EQ(pdf_.render(path, 0, 300).width, 300u);
}

TEST_F(PdfRendererTest, TheLastFailureIsTheSecondBackends) {
  PdfRenderer pdf(library_, std::make_unique<SecondBackend>(true));
  EXPECT_EQ(failure_of([&] { pdf.render(document("load_error=1"), 0, 300); }), "second back-end failed");
  EXPECT_EQ(failure_of([&] { pdf.probe(dir_.file("none.pdf"), 0, 300); }), "second back-end failed");
  EXPECT_TRUE(log_.contains("PdfRenderer(PDFium): failed to read PDF bytes or file exceeds 512 MiB cap: "));
}

/// Runs out of something, each time.
struct ExhaustedBackend final : PdfBackend {
  std::function<void()> fail;
  int calls = 0;

  explicit ExhaustedBackend(std::function<void()> how) : fail(std::move(how)) {}
  PdfPageInfo probe(const PdfRequest& request) override { return render(request, {}); }
  PdfRenderResult render(const PdfRequest&, const PageWatcher&) override {
    ++calls;
    fail();
    return {};
  }
};

TEST_F(PdfRendererTest, OnlyAPageThatRanOutOfTimeIsNotTriedAgain) {
  const std::string path = document("load_error=1");
  const std::pair<std::function<void()>, int> cases[] = {
      {[] { throw PdfTimeout("late"); }, 1},
      {[] { throw MachineFailure("killed"); }, 2},
      {[] { throw std::bad_alloc(); }, 2},
  };
  for (const auto& [fail, calls] : cases) {
    auto backend = std::make_unique<ExhaustedBackend>(fail);
    const ExhaustedBackend& exhausted = *backend;
    PdfRenderer pdf(library_, std::move(backend));
    std::string first, second;
    for (std::string* text : {&first, &second}) *text = failure_of([&] { pdf.render(path, 0, 300); });
    EXPECT_EQ(exhausted.calls, calls) << first;
    EXPECT_EQ(first, second);
    EXPECT_NE(first, "");
    if (calls == 1) {
      EXPECT_THROW(pdf.render(path, 0, 300), MachineFailure);
      document("load_error=1 ");  // another file
      EXPECT_EQ(failure_of([&] { pdf.render(path, 0, 300); }), "late");
      EXPECT_EQ(exhausted.calls, 2);
    }
  }
}

TEST_F(PdfRendererTest, NeverWaitsForAPipe) {
  const std::string path = dir_.file("pipe.pdf");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(failure_of([&] { pdf_.render(path, 0, 300); }), "PdfRenderer: not a regular file: " + path);
  EXPECT_EQ(failure_of([&] { pdf_.probe(path, 0, 300); }), "PdfRenderer: not a regular file: " + path);
  EXPECT_FALSE(file_has_spot_candidate(path));
}

TEST_F(PdfRendererTest, TellsOnceWhyPdfiumIsNotThere) {
  const std::string junk = document("not a library", "libpdfium.so"), empty = dir_.file("empty");
  const std::pair<std::filesystem::path, std::string> cases[] = {
      {"", "was not loaded because the executable path could not be resolved; looked only for libpdfium.so"},
      {empty, "was not found next to the executable at " + empty + "/libpdfium.so"},
      {dir_.path(), "next to the executable could not be loaded from " + junk + " (Win32 error "},
      {NVO_FAKE_PDFIUM_INCOMPLETE, "is missing required public API symbol FPDF_GetLastError"},
  };
  const std::string path = document("");
  const std::string unavailable =
      "PdfRenderer: PDFium backend unavailable; using Poppler fallback for render ";
  for (const auto& [folder, reason] : cases) {
    PdfiumLibrary absent(folder);
    PdfRenderer pdf(absent, std::make_unique<SecondBackend>(false));
    for (int twice = 0; twice < 2; ++twice) EXPECT_FALSE(pdf.render(path, 0, 300).has_alpha);
    EXPECT_THAT(log_.take(),
                ElementsAre(StartsWith("[INFO ] " + unavailable + "'" + path + "': libpdfium.so " + reason),
                            "[INFO ] PdfRenderer: selected Poppler backend for render '" + path + "'"));
  }
}

TEST_F(PdfRendererTest, TheCandidateScanSeesWordsAcrossItsPieces) {
  for (const std::size_t start : {0u, 1'048'560u, 1'048'576u, 2'097'150u}) {
    const std::string bytes(start, ' ');
    EXPECT_TRUE(file_has_spot_candidate(document(bytes + "/Separation /White"))) << start;
    EXPECT_FALSE(file_has_spot_candidate(document(bytes + "/Separation /Gold"))) << start;
  }
  EXPECT_FALSE(file_has_spot_candidate(document("")));
  EXPECT_FALSE(file_has_spot_candidate(dir_.file("none.pdf")));
}

}  // namespace
}  // namespace nvo::test
