#include "core/machine_failure.h"
#include "core/platform/child_process.h"
#include "image/image_test.h"
#include "image/pdf/pdf_renderer.h"
#include "image/pdf/pdfium_backend.h"
#include "image/pdf/poppler_backend.h"
#include "pdf_file.h"
#include "support/scoped_variable.h"

namespace nvo::test {
namespace {

/// The system's PDFium under the name that the program looks for, or nothing where it isn't installed.
PdfiumLibrary& real_pdfium() {
  static const TempDir folder;
  static PdfiumLibrary library = [] {
    const char* const installed = "/usr/lib/libreoffice/program/libpdfiumlo.so";
    std::filesystem::create_symlink(installed, folder.path() / "libpdfium.so");
    return PdfiumLibrary(folder.path());
  }();
  return library;
}

/// Real files through both real back-ends.
class PdfPages : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (GetParam() == std::string("PDFium")) {
      if (!real_pdfium().available()) GTEST_SKIP() << real_pdfium().unavailable_reason();
      backend_ = std::make_unique<PdfiumBackend>(real_pdfium());
      module_ = "PdfRenderer(PDFium): ";
    } else {
      if (platform::find_program("pdftocairo").empty()) GTEST_SKIP() << "poppler-utils is not installed";
      backend_ = std::make_unique<PopplerBackend>();
      module_ = "PdfRenderer: ";
    }
  }
  PdfRequest request(const PageFile& file, float dpi, std::uint32_t index = 0) {
    write_all(dir_.file("-a b'.pdf"), pdf_bytes(file));
    return {dir_.file("-a b'.pdf"), index, dpi};
  }
  std::string failure(const PageFile& file, float dpi, std::uint32_t index = 0) {
    const PdfRequest wanted = request(file, dpi, index);
    return failure_of([&] { backend_->render(wanted); });
  }

  TempDir dir_;
  std::unique_ptr<PdfBackend> backend_;
  std::string module_;
};
INSTANTIATE_TEST_SUITE_P(Backends, PdfPages, ::testing::Values("PDFium", "Poppler"),
                         [](const auto& backend) { return std::string(backend.param); });

std::vector<int> pixel(const PdfRenderResult& page, std::uint32_t x, std::uint32_t y) {
  const std::uint8_t* sample = page.rgba.data() + (std::size_t{y} * page.width + x) * 4;
  return {sample[0], sample[1], sample[2], sample[3]};
}

TEST_P(PdfPages, TheCropBoxIsThePageAndTurnsWithIt) {
  const PdfRenderResult page = backend_->render(request(kTurnedPage, 72));
  EXPECT_EQ(page.width, 36u);
  EXPECT_EQ(page.height_inches, 1.0f);
  ASSERT_EQ(page.height, 72u);
  const std::vector<int> red{255, 0, 0, 255}, paper{0, 0, 0, 0};
  for (std::uint32_t y = 0; y < page.height; ++y)
    for (std::uint32_t x = 0; x < page.width; ++x)
      ASSERT_EQ(pixel(page, x, y), x < 18 && y < 18 ? red : paper) << x << ", " << y;
  EXPECT_EQ(dir_.names().size(), 1u) << "nothing is left beside the file";
}

TEST_P(PdfPages, SizesAreExactWhateverTheBoxAndTheTurn) {
  const struct {
    const char* boxes;
    float dpi;
    std::uint32_t width, height;
  } cases[] = {
      {"/MediaBox [0 0 595.276 841.89]", 300, 2480, 3508},
      {"/MediaBox [0 0 841.89 1190.55]", 72, 842, 1191},
      {"/MediaBox [0 0 0.1 0.1]", 300, 1, 1},
      {"/MediaBox [0 0 3 9] /Rotate -90", 300, 38, 13},
      {"/MediaBox [72 36 0 0] /CropBox [-9 -9 99 99] /Rotate 180", 100, 100, 50},
      {"/MediaBox [0 0 61.8203 146.3211]", 100, 86, 203},
      {"/MediaBox [0 0 72 72] /UserUnit 2", 72, 72, 72},
  };
  for (const auto& c : cases) {
    const PdfRequest wanted = request({.boxes = c.boxes}, c.dpi);
    const PdfRenderResult page = backend_->render(wanted);
    const PdfPageInfo probed = backend_->probe(wanted);
    EXPECT_THAT((std::vector{page.width, page.height, probed.width, probed.height}),
                ElementsAre(c.width, c.height, c.width, c.height))
        << c.boxes;
    EXPECT_EQ(page.rgba.size(), std::size_t{c.width} * c.height * 4) << c.boxes;
  }
}

TEST_P(PdfPages, LongPagesComeWhole) {
  const PageFile banner{.boxes = "/MediaBox [0 0 2 14400]",
                        .content = "0 1 0 rg 0 14396 2 4 re f 1 0 0 rg 0 0 2 4 re f"};
  const PdfRenderResult page = backend_->render(request(banner, 180));
  ASSERT_EQ(page.height, 36000u);
  const std::vector<int> green{0, 255, 0, 255}, red{255, 0, 0, 255}, paper{0, 0, 0, 0};
  EXPECT_THAT((std::vector{pixel(page, 4, 9), pixel(page, 4, 10)}), ElementsAre(green, paper));
  EXPECT_THAT((std::vector{pixel(page, 0, 35989), pixel(page, 4, 35990)}), ElementsAre(paper, red));
}

TEST_P(PdfPages, FailuresSayWhatIsWrong) {
  const PageFile three{.pages = 3};
  EXPECT_EQ(backend_->probe(request(three, 72, 2)).page_count, 3u);
  const std::string path = dir_.file("-a b'.pdf");
  for (const std::uint32_t index : {3u, 0xFFFFFFFFu})
    EXPECT_EQ(failure(three, 72, index),
              module_ + "page index " + std::to_string(index) + " is out of range for 3 page PDF: " + path);
  EXPECT_THAT(failure({.pages = 0}, 72),
              ::testing::AnyOf(module_ + "PDF has no pages: " + path, HasSubstr("failed to load PDF")));
  EXPECT_EQ(
      failure({.boxes = "/MediaBox [0 0 14400 14400]"}, 300),
      "PdfRenderer: requested PDF render exceeds 1 GiB RGBA buffer; lower DPI or render a smaller page");
  EXPECT_THAT(failure(kLockedPage, 72), AllOf(HasSubstr("PDF '" + path + "': "), HasSubstr("assword")));
  write_all(path, "no PDF");
  EXPECT_THAT(failure_of([&] { backend_->probe({path, 0, 72}); }), HasSubstr("PDF '" + path + "': "));
}

/// Programs of the test's own in the place of Poppler's.
class PopplerPrograms : public ::testing::Test {
 protected:
  void install(const std::string& name, const std::string& script) {
    write_all(dir_.file(name), "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(dir_.file(name), std::filesystem::perms::owner_all);
  }
  void install_info(const std::string& size) {
    install("pdfinfo", "printf 'Title: x\\nPages: 9\\nPages:  1\\nPage    1 size: " + size +
                           "\\nPage    1 rot:  0\\nFile size: 7\\n'");
  }
  /// The text of a failure, behind "machine: " where it is the machine's.
  std::string failure(std::chrono::milliseconds longest = std::chrono::hours(1)) {
    try {
      PopplerBackend(longest).render({dir_.file("a.pdf"), 0, 72});
    } catch (const MachineFailure& failure) {
      return std::string("machine: ") + failure.what();
    } catch (const std::exception& failure) {
      return failure.what();
    }
    return {};
  }

  TempDir dir_;
  const ScopedVariable path_{"PATH", dir_.path().c_str()};
  const std::string context_ = "PdfRenderer: failed to render PDF '" + dir_.file("a.pdf") + "': ";
  const std::string machine_ = "machine: " + context_;
};

TEST_F(PopplerPrograms, EveryWayToFailHasItsTextAndItsCulprit) {
  EXPECT_EQ(failure(), machine_ + "Poppler's program pdfinfo is not installed (0x2)");
  const std::pair<const char*, std::string> info_cases[] = {
      {"printf 'Syntax Warning: a\\a\\n Error: b\\n' >&2; exit 99",
       context_ + "Syntax Warning: a;  Error: b (0x63)"},
      {"exit 1", context_ + "pdfinfo ended with code 1 (0x1)"},
      {"kill -SEGV $$", machine_ + "pdfinfo was ended by signal 11 (0x8B)"},
      {"echo Out of memory >&2; exit 1", machine_ + "Out of memory; pdfinfo is out of memory (0xC)"},
      {"echo Syntax Error: Out of memory >&2; exit 1", context_ + "Syntax Error: Out of memory (0x1)"},
      {"echo no library >&2; exit 127", machine_ + "no library; pdfinfo cannot be run (0x7F)"},
      {"echo Pages: 1", context_ + "the output of pdfinfo was not understood (0x4A)"},
  };
  for (const auto& [script, text] : info_cases) {
    install("pdfinfo", script);
    EXPECT_EQ(failure(), text);
  }
  write_all(dir_.file("pdfinfo"), "#!/nowhere\n");
  EXPECT_EQ(failure(), machine_ + "pdfinfo cannot be started: No such file or directory (0x2)");
  install_info("0 x 5 pts");
  EXPECT_EQ(failure(), "PdfRenderer: invalid PDF page width in DIPs");

  install_info("2 x 1 pts (tiny)");
  EXPECT_EQ(failure(), machine_ + "Poppler's program pdftocairo is not installed (0x2)");
  const std::pair<const char*, std::string> page_cases[] = {
      {"", "PdfRenderer: PDF renderer returned an empty image stream"},
      {"printf junkjunk", machine_ + "the picture of pdftocairo is incomplete"},
      {"exec /usr/bin/head -c 100000 /dev/zero", "PdfRenderer: rendered PDF image stream is too large"},
      {"echo cairo error: out of memory >&2; echo x", machine_ + "cairo error: out of memory; pdftocairo is"},
      {"echo busy >&2; exec /bin/sleep 1000", machine_ + "busy; pdftocairo took longer than 1500 ms (0x6E)"},
  };
  for (const auto& [script, text] : page_cases) {
    install("pdftocairo", script);
    EXPECT_THAT(failure(std::chrono::milliseconds(1500)), StartsWith(text));
  }
}

/// What pages may take, in seconds.
TEST(PopplerTimes, SmallFilesEndWithinAMinuteAndGangSheetsHaveTime) {
  constexpr std::uint64_t mib = 1 << 20, letter = 2550 * 3300, sheet = 6600 * 36000;
  const std::tuple<std::uint64_t, std::uint64_t, int> cases[] = {
      {0, letter, 45},       {mib, sheet, 45},        {2 * mib, sheet, 105},
      {2 * mib, letter, 55}, {181 * mib, sheet, 642}, {512 * mib, sheet, 1304},
  };
  for (const auto& [bytes, pixels, seconds] : cases)
    EXPECT_EQ(poppler_page_time(bytes, pixels).count() / 1000, seconds) << bytes << ", " << pixels;
  EXPECT_LT((2 * poppler_info_time(mib) + poppler_page_time(mib, sheet)).count(), 60'000);
}

TEST_F(PopplerPrograms, TakesAWholePictureOfTheRightSizeOnly) {
  if (!std::filesystem::exists("/usr/bin/pdftocairo")) GTEST_SKIP() << "poppler-utils is not installed";
  write_all(dir_.file("page"), pdf_bytes({}));
  const std::string render =
      "/usr/bin/pdftocairo -tiff -tiffcompression none -transp -singlefile -r 72 " + dir_.file("page") + " -";
  install_info("7 x 36 pts");
  install("pdftocairo", "exec " + render);
  EXPECT_EQ(
      failure(),
      "PdfRenderer: rendered PDF image dimensions did not match requested DPI: requested 7x36, got 72x36");
  install_info("72 x 36 pts");
  ASSERT_EQ(std::system((render + " >" + dir_.file("picture")).c_str()), 0);
  install("pdftocairo", "exec /usr/bin/head -c 100 " + dir_.file("picture"));
  EXPECT_THAT(failure(), StartsWith("cannot read the temporary file in '"));

  LogCapture log;
  install("pdftocairo",
          "printf 'Fontconfig error: No writable cache directories\\nSyntax Error: a\\033[2J\\n' >&2\n"
          "exec /bin/cat " +
              dir_.file("picture"));
  EXPECT_EQ(failure(), "");
  EXPECT_THAT(log.take(),
              ElementsAre("[WARN ] PDF '" + dir_.file("a.pdf") +
                          "': the page was rendered, but the renderer complains, and the film may "
                          "differ from what a viewer shows: Syntax Error: a[2J"));
}

}  // namespace
}  // namespace nvo::test
