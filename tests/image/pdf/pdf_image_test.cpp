#include "image/pdf_image.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "core/platform/child_process.h"
#include "image/image_loader.h"
#include "image/image_meta_probe.h"
#include "image/image_test.h"
#include "image/raster_source.h"
#include "pdf_file.h"

namespace nvo::test {
namespace {

/// Two pixels as a back-end delivers them.
PdfRenderResult two_pixels() {
  PdfRenderResult page;
  page.width = 2, page.height = 1;
  page.dpi_x = page.dpi_y = 300;
  page.rgba = {1, 2, 3, 0, 4, 5, 6, 255};
  page.has_alpha = true;
  return page;
}

PdfRenderResult with_white(PdfRenderResult page = two_pixels()) {
  page.spot_white_coverage = {255, 1};
  page.has_spot_white = true;
  return page;
}

std::string channel_names(const ImageMeta& meta) {
  std::string names;
  for (const ChannelInfo& channel : meta.channels)
    names += channel.name + std::to_string(channel.index) + " ";
  return names;
}

TEST(PdfImage, WhiteIsTheSpotColoursElseAlphas) {
  const LogCapture log;
  const LoadedImage plain = image_of_pdf_page("a.pdf", 300, two_pixels());
  EXPECT_EQ(plain.pixels, two_pixels().rgba);
  EXPECT_THAT(plain.white_coverage, ElementsAre(0, 255));
  EXPECT_EQ(channel_names(plain), "Red0 Green1 Blue2 Alpha3 ");

  PdfRenderResult opaque = with_white();
  opaque.has_alpha = false;
  const LoadedImage white = image_of_pdf_page("a.pdf", 300, opaque);
  EXPECT_THAT(white.pixels, ElementsAre(1, 2, 3, 0, 0, 4, 5, 6, 255, 254));
  EXPECT_THAT(white.white_coverage, ElementsAre(255, 1));
  EXPECT_EQ(channel_names(white), "Red0 Green1 Blue2 Alpha3 White4 ");

  PdfRenderResult masked = two_pixels();
  masked.process_alpha_coverage = {255, 255};
  const LoadedImage covered = image_of_pdf_page("a.pdf", 300, masked);
  EXPECT_FALSE(covered.has_alpha) << "the masks decide, not what they replace";
  EXPECT_THAT(covered.pixels, ElementsAre(1, 2, 3, 255, 4, 5, 6, 255));
}

TEST(PdfImage, TellsWhatBecameOfASpotWhite) {
  LogCapture log;
  PdfRenderResult page = two_pixels();
  image_of_pdf_page("a.pdf", 300, page);
  page.has_spot_candidate = true;
  page.spot_status = "no spot-white candidate heuristic detected; extraction not needed";
  EXPECT_THAT(image_of_pdf_page("a.pdf", 300, page).warnings, IsEmpty());
  EXPECT_THAT(log.take(), IsEmpty());

  page.spot_status = "";
  EXPECT_THAT(
      image_of_pdf_page("a.pdf", 300, page).warnings,
      ElementsAre("possible spot-white separation detected; spot-white not extracted; using preview/raster "
                  "alpha fallback for white coverage; status: unknown"));
  image_of_pdf_page("a.pdf", 300, with_white(page));
  EXPECT_THAT(
      log.take(),
      ElementsAre(
          "[WARN ] ImageLoader(PDF): possible spot-white separation detected in 'a.pdf'. Best-effort PDF "
          "spot parser did not extract a supported spot mask; status: unknown. Using preview/raster alpha "
          "fallback for white coverage.",
          "[INFO ] ImageLoader(PDF): extracted spot-white mask from 'a.pdf' and mapped it to explicit "
          "white coverage. Status: extracted spot-white mask."));
}

/// A page of 40 x 10 pixels, painted on its left half, whose white and box lie where they should.
PdfRenderResult wide_page() {
  PdfRenderResult page;
  page.width = 40, page.height = 10;
  page.page_count = 1;
  page.dpi_x = page.dpi_y = 72;
  for (int i = 0; i < 400; ++i)
    page.rgba.insert(page.rgba.end(), {9, 9, 9, Bytes::value_type(i % 40 < 20 ? 255 : 0)});
  page.spot_white_coverage = Bytes(400, 255);
  page.has_spot_white = page.has_alpha = true;
  page.facts.has_page = page.facts.is_page_of_tree = true;
  page.facts.box_width = 40, page.facts.box_height = 10;
  page.facts.page_objects = 1;
  return page;
}

Bytes mask_up_to(int column, Bytes::value_type beyond = 0) {
  Bytes mask(400, beyond);
  for (std::size_t i = 0; i < mask.size(); ++i)
    if (static_cast<int>(i % 40) < column) mask[i] = 255;
  return mask;
}

TEST(PdfImage, WarnsWhereTheFilmIsNotThePage) {
  using Edit = void (*)(PdfRenderResult&);
  const auto no_white = [](PdfRenderResult& page) {
    page.spot_white_coverage.clear();
    page.has_spot_white = false;
  };
  const std::pair<Edit, std::vector<std::string>> cases[] = {
      {[](auto&) {}, {}},
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(20); }, {}},
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(17); }, {}},  // the edge of a smaller image
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(4); }, {"not printed: 160 pixels, 80 % of"}},
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(4, 1); },
       {"prints fainter: 160 pixels, 80 % of"}},
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(20, 25); }, {}},
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(23); }, {}},  // the edge of a larger image
      {[](auto& page) { page.process_alpha_coverage = mask_up_to(24); },
       {"where nothing is painted (an image may be clipped): 40 pixels, 20 % of"}},
      {[](auto& page) {
         page.process_alpha_coverage = mask_up_to(20);
         for (std::size_t i = 3; i < page.rgba.size(); i += 4) page.rgba[i] /= 2;
       },
       {"prints as strongly as they are: 200 pixels, 100 % of"}},
      {[](auto& page) { page.facts.white_is_guess = true; },
       {"its only spot colour has another name than White"}},
      {[](auto& page) {
         page.process_alpha_coverage = mask_up_to(4);
         for (std::size_t i = 3; i < page.rgba.size(); i += 4)
           if (i / 4 % 40 > 3) page.rgba[i] /= 2;
       },
       {}},  // soft, as around an enlarged image
      {[](auto& page) { page.rgba.assign(1600, 0); }, {"nothing to paint on the page: only its white"}},
      {[](auto& page) { page.facts.rotation = 180; }, {"turned by 180 degrees"}},
      {[](auto& page) {
         page.facts.rotation = 90;
         std::swap(page.facts.box_width, page.facts.box_height);
       },
       {"turned by 90 degrees"}},
      {[](auto& page) { page.facts.box_width = 40.9; }, {}},
      {[](auto& page) { page.facts.box_width = 50; }, {"40 x 10 pixels of a media box of 50 x 10"}},
      {[](auto& page) { page.facts.user_unit = 2.5; }, {"UserUnit is 2.5"}},
      {[](auto& page) { page.facts.page_objects = page.page_count = 9; }, {}},
      {[](auto& page) { page.facts.page_objects = 2; }, {}},  // the tree knows better
      {[](auto& page) {
         page.facts.is_page_of_tree = false;
         page.facts.page_objects = 2;
       },
       {"there are 2, while the document has 1"}},
      {[](auto& page) {
         page.facts.is_page_of_tree = false;
         page.facts.is_other_page = true;
       },
       {"not the one that the document begins with"}},
      {[](auto& page) { page.facts.hides_candidate = true; }, {}},  // white was found elsewhere
  };
  const auto expect = [](const PdfRenderResult& page, const std::vector<std::string>& texts,
                         std::size_t row) {
    LogCapture log;
    image_of_pdf_page("a.pdf", 72, page);
    std::vector<std::string> warnings;
    for (const std::string& line : log.take())
      if (line.starts_with("[WARN ] PDF 'a.pdf': ")) warnings.push_back(line);
    ASSERT_EQ(warnings.size(), texts.size()) << row;
    for (std::size_t i = 0; i < texts.size(); ++i) EXPECT_THAT(warnings[i], HasSubstr(texts[i])) << row;
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    PdfRenderResult page = wide_page();
    cases[i].first(page);
    expect(page, cases[i].second, i);
  }
  PdfRenderResult plain = wide_page();
  no_white(plain);
  plain.facts.rotation = 90;
  plain.facts.is_other_page = true;
  expect(plain, {}, 100);  // nothing lies beside the art
  plain.facts.closed_lists = 3;
  expect(plain, {"3 compressed lists of objects can't be looked into"}, 101);
  plain.facts.hides_candidate = true;
  expect(plain, {"which are not read, name a spot white"}, 102);
  plain.rgba.assign(1600, 0);
  plain.facts = {};
  expect(plain, {"nothing of it is printed"}, 103);
}

TEST(PdfImage, RefusesPagesThatContradictThemselves) {
  const LogCapture log;
  using Edit = void (*)(PdfRenderResult&);
  const std::pair<Edit, const char*> cases[] = {
      {[](auto& page) { page.height = 0; }, "produced empty raster geometry"},
      {[](auto& page) { page.rgba.pop_back(); }, "RGBA buffer size mismatch"},
      {[](auto& page) { page.process_alpha_coverage = {1}; }, "process alpha coverage size mismatch"},
      {[](auto& page) { page.spot_white_coverage.clear(); }, "spot white coverage size mismatch"},
      {[](auto& page) { page.has_spot_white = false; }, "spot white coverage flag mismatch"},
  };
  for (const auto& [edit, text] : cases) {
    PdfRenderResult page = with_white();
    edit(page);
    EXPECT_EQ(failure_of([&] { image_of_pdf_page("a.pdf", 300, page); }),
              std::string("ImageLoader(PDF): renderer ") + text);
  }
}

/// The renderer's own PNG has straight colours too.
TEST(PdfImage, TranslucentPagesHaveTheBytesOfTheRenderersPng) {
  if (platform::find_program("pdftocairo").empty()) GTEST_SKIP() << "poppler-utils is not installed";
  const TempDir dir;
  std::string states, content;
  for (int i = 1; i < 64; ++i) {  // a ramp of colours below one alpha a line
    const std::string n = std::to_string(i);
    states += "/A" + n + " << /ca " + std::to_string(i / 64.0) + " >> ";
    content += "/A" + n + " gs q 0 " + n + " 144 1 re W n /R sh Q ";
  }
  write_all(dir.file("a.pdf"),
            pdf_bytes({.boxes = "/MediaBox [0 0 144 72]",
                       .content = content,
                       .resources = "/ExtGState << " + states +
                                    ">> /Shading << /R << /ShadingType 2 /ColorSpace /DeviceRGB /Coords [0 0 "
                                    "144 0] /Function << /FunctionType 2 /Domain [0 1] /C0 [1 0 .3] /C1 [0 "
                                    "1 .4] /N 1 >> >> >>"}));
  ASSERT_EQ(std::system(("pdftocairo -png -transp -singlefile -cropbox -r 100 " + dir.file("a.pdf") + " " +
                         dir.file("a"))
                            .c_str()),
            0);
  const LoadedImage png = load_image(dir.file("a.png"));
  EXPECT_GT(std::set(png.pixels.begin(), png.pixels.end()).size(), 200u) << "it has all kinds of pixels";
  EXPECT_EQ(load_pdf(dir.file("a.pdf"), 0, 100).pixels, png.pixels);
}

TEST(PdfImage, FilesLoadProbeAndServeRowsAlike) {
  if (platform::find_program("pdftocairo").empty()) GTEST_SKIP() << "poppler-utils is not installed";
  const TempDir dir;
  const LogCapture log;
  const std::string path = dir.file("white.PDF");
  // Red on the left quarter, white ink on the left half, of 12 x 2 pixels.
  write_all(path,
            pdf_bytes({.boxes = "/MediaBox [0 0 2.88 0.48]",
                       .content = "1 0 0 rg 0 0 .72 .48 re f /W cs 1 scn 0 0 1.4 .48 re f",
                       .resources = "/ColorSpace << /W [/Separation /White /DeviceCMYK << /FunctionType 2 "
                                    "/Domain [0 1] /C0 [0 0 0 0] /C1 [0 0 0 0] /N 1 >>] >>"}));
  const LoadedImage image = load_image(path);
  Bytes white(24, 0);
  for (const int start : {0, 12}) std::fill_n(white.begin() + start, 6, 255);
  EXPECT_EQ(image.white_coverage, white);

  const ImageProbeInfo probed = probe_image(path);
  EXPECT_EQ(probed.width, 12u);
  EXPECT_EQ(probed.effective_dpi, 300.0f);

  const auto source = make_raster_source(path);
  EXPECT_EQ(source->read_strategy(), "cached PDF raster row reads");
  Bytes rows;
  std::string error;
  ASSERT_TRUE(source->read_rows(1, 1, rows, &error)) << error;
  EXPECT_EQ(rows, Bytes(image.pixels.begin() + 60, image.pixels.end()));
  ASSERT_TRUE(source->read_region({11, 0, 1, 2}, rows, nullptr));
  EXPECT_THAT(rows, ElementsAre(0, 0, 0, 0, 255, 0, 0, 0, 0, 255));
  const RasterReadStats stats = source->stats();
  EXPECT_THAT((std::vector{stats.row_reads, stats.region_reads, stats.full_decodes}), ElementsAre(2, 1, 1));

  EXPECT_THAT(failure_of([&] { load_pdf(path, 1, 300); }),
              StartsWith("ImageLoader: failed to rasterize PDF '" + path +
                         "': PdfRenderer: page index 1 is out of range"));
}

}  // namespace
}  // namespace nvo::test
