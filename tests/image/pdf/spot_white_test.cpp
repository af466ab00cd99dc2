#include "image/pdf/spot_white.h"

#include <functional>
#include <sstream>
#include <string_view>

#include "image/image_test.h"
#include "image/pdf/pdf_file.h"

namespace nvo::test {
namespace {

const std::string kVectors = "extracted vector spot-white mask";
const std::string kImages = "extracted image spot-white mask";
const std::string kNothing = "no supported spot-white content found by best-effort parser";
const std::string kNotNeeded = "no spot-white candidate heuristic detected; extraction not needed";
const std::string kAborted = "interpreter aborted on unsupported/too-complex spot-white content";
const std::string kStructure = "; PDF object streams/xref streams are unsupported";
const std::string kOneAborted = "; one spot-white interpreter aborted on unsupported/too-complex content";

const std::string kWhite = "/ColorSpace <</W [/Separation /White /DeviceCMYK 9 0 R]>>";
const std::string kUse = "/W cs 1 scn /W CS 1 SCN ";

SpotWhiteResult extract(const PdfFile& file, std::uint32_t width = 10, std::uint32_t height = 10) {
  return extract_spot_white_from_bytes(file.text(), 0, width, height);
}

/// A plane of 10 columns as rows of text: '.' for 0, '#' for 255, '+' for what lies between; rows without any
/// paint at the bottom are left out.
std::string art(const std::vector<std::uint8_t>& plane) {
  std::string text;
  for (std::size_t i = 0; i < plane.size(); ++i) {
    text += plane[i] == 0 ? '.' : plane[i] == 255 ? '#' : '+';
    if (i % 10 == 9) text += '\n';
  }
  while (text.ends_with("..........\n")) text.resize(text.size() - 11);
  return text;
}

std::string repeat(std::string_view text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

std::vector<std::string> split(const std::string& alternatives) {
  std::vector<std::string> parts;
  std::istringstream list(alternatives);
  for (std::string part; std::getline(list, part, '|');) parts.push_back(part);
  return parts;
}

TEST(SpotWhite, SaysWhatItMet) {
  const std::string box = "/MediaBox [0 0 10 10]", resources = " /Resources <<>> ", type = "<</Type /Page ";
  const std::string shape = kUse + "0 0 5 5 re f ";
  const auto object = [](const std::string& body) { return PdfFile().object(1, body).text(); };
  const auto page = [](const std::string& content) { return one_page(kWhite, content).text(); };
  const std::pair<std::string, std::string> cases[] = {
      {"", "parse found no indirect objects supported by the partial parser"},
      {"<</Type /XRef>>", "parse found no indirect objects supported by the partial parser" + kStructure},
      {object("<</Type /Pages>>"), "parse found no page object supported by the partial parser"},
      {object("<</Type /ObjStm>>"),
       "parse found no page object supported by the partial parser" + kStructure},
      {object(type + resources), "parse found page object but no supported MediaBox"},
      {object(type + box), "parse found page object but no supported page resources"},
      {object(type + box + "/Resources 7 0 R"), "parse found page object but no supported page resources"},
      {object(type + box + resources),
       "parse found page/resources but no supported content streams (unsupported filters or stream caps may "
       "apply)"},
      {one_page("", "").text(), kNotNeeded},
      {page("0 0 5 5 re f"), kNothing},
      {page(shape), kVectors},
      {page(shape + repeat("q ", 128) + "Q q"), kVectors},
      {page(shape + repeat("q ", 129)), kAborted},
      {page(shape + repeat("Tj ", 4096)), kVectors},
      {page(shape + repeat("(a) Tj ", 4097)), kAborted},
  };
  for (const auto& [bytes, status] : cases)
    EXPECT_EQ(extract_spot_white_from_bytes(bytes, 0, 10, 10).status, status) << bytes.substr(0, 300);
  EXPECT_EQ(extract(one_page(kWhite, kUse), 0, 10).status, "skipped: rendered page dimensions are empty");
}

TEST(SpotWhite, SaysWhatItKnowsOfThePage) {
  const std::string leaf = "<</Type /Page /MediaBox [0 0 20 10] ", tree = "<</Type /Pages /Kids [";
  const auto list = [](const std::string& keys, const std::string& objects) {
    return PdfFile().stream(9, "/Type /ObjStm" + keys, objects).text();
  };
  const std::string white = "1 0 [/Separation /White /DeviceCMYK 3 0 R]";
  using Facts = PdfPageFacts;
  const std::pair<std::string, std::function<bool(const Facts&)>> cases[] = {
      {PdfFile().object(1, leaf + ">>").text(),
       [](const Facts& f) {
         return f.has_page && f.box_width == 20 && f.box_height == 10 && f.rotation == 0 &&
                f.user_unit == 1 && f.page_objects == 1 && !f.is_page_of_tree && !f.is_other_page &&
                f.closed_lists == 0;
       }},
      {PdfFile().object(1, leaf + "/Parent 2 0 R>>").object(2, "/Rotate -90 /UserUnit 7").text(),
       [](const Facts& f) { return f.rotation == 270 && f.user_unit == 1; }},
      {PdfFile().object(1, leaf + "/Rotate 450 /UserUnit 1.5>>").text(),
       [](const Facts& f) { return f.rotation == 90 && f.user_unit == 1.5; }},
      {PdfFile()
               .object(7, leaf + ">>")
               .object(8, leaf + ">>")
               .object(2, tree + "7 0 R 8 0 R]>>")
               .object(3, tree + "2 0 R]>>")
               .object(4, "<</Pages 3 0 R>>")
               .text() +
           "/Root 99 0 R /Root 4 0 R /Root",
       [](const Facts& f) { return f.is_page_of_tree && !f.is_other_page && f.page_objects == 2; }},
      {PdfFile()
               .object(7, leaf + ">>")
               .object(8, leaf + ">>")
               .object(2, tree + "8 0 R 7 0 R]>>")
               .object(4, "<</Pages 2 0 R>>")
               .text() +
           "trailer <</Root 4 0 R>>",
       [](const Facts& f) { return f.is_other_page && !f.is_page_of_tree; }},
      {PdfFile().object(7, leaf + ">>").object(2, tree + "2 0 R]>>").object(4, "<</Pages 2 0 R>>").text() +
           "/Root 4 0 R",
       [](const Facts& f) { return !f.is_other_page && !f.is_page_of_tree; }},  // a circle
      {list("", white), [](const Facts& f) { return f.hides_candidate && f.closed_lists == 0; }},
      {list("/Filter /FlateDecode", deflated(white)), [](const Facts& f) { return f.hides_candidate; }},
      {list("", "1 0 [/Separation /Gold"),
       [](const Facts& f) { return !f.hides_candidate && f.closed_lists == 0; }},
      {list("/Filter /FlateDecode", white), [](const Facts& f) { return f.closed_lists == 1; }},
  };
  for (const auto& [bytes, holds] : cases)
    EXPECT_TRUE(holds(extract_spot_white_from_bytes(bytes, 0, 10, 10).facts)) << bytes;
}

TEST(SpotWhite, ReadsFilesOfItsSize) {
  const TempDir dir;
  const std::string path = dir.file("a.pdf");
  const auto status = [](const std::string& file, std::uint32_t page = 0) {
    return extract_spot_white(file, page, 10, 10).status;
  };
  for (const std::string& unreadable : {path, dir.path().string()})
    EXPECT_EQ(status(unreadable),
              "skipped: could not read PDF bytes within the 64 MiB spot-white extractor cap");
  write_all(path, one_page(kWhite, kUse + "0 0 5 5 re f").text());
  EXPECT_EQ(status(path, 1), "parse found no page object supported by the partial parser");
  std::filesystem::resize_file(path, 64 << 20);
  EXPECT_EQ(status(path), kVectors);
  std::filesystem::resize_file(path, (64 << 20) + 1);
  EXPECT_EQ(status(path),
            "skipped: PDF file is over 64 MiB spot-white extractor cap; visual render may still work "
            "under the 512 MiB PDF render cap");
}

TEST(SpotWhite, GuessesCandidates) {
  for (const char* text :
       {"[/separation /white /devicecmyk", "[/separation/spot_1", "[/cyan /white>> [/devicen",
        "[/devicen [/cyan /white]", "[/devicen [/cyan /white_ink"})
    EXPECT_TRUE(has_spot_white_candidate(text)) << text;
  for (const char* text :
       {"[/separation  /white", "[/devicen [/cyan /whitest", "[/cyan /white ]", "/devicen /white"})
    EXPECT_FALSE(has_spot_white_candidate(text)) << text;
}

TEST(SpotWhite, FindsTheWhiteColorant) {
  const std::string white = "[/Separation /White 0]", gold = "[/Separation /Gold 0]";
  const struct {
    std::string spaces, painted, unpainted;  // content that ends in a fill, alternatives behind bars
  } cases[] = {
      // Plain colours are not known, so white goes on.
      {"/C" + white, "/C cs 1 scn|/C cs 0.01 sc|/C cs q /D cs Q 1 scn|/C cs 1 scn 1 0 0 rg",
       "/C cs 0 scn|/C cs 1 scn /P scn|1 scn /C cs|/C cs 1 scn /D cs|q /C cs 1 scn Q|/C CS 1 SCN"},
      {"/C#31 [/Separation /Spot#20White 0]", "/C1 cs 1 scn", ""},
      {"/C [/Separation /WHITE-Ink 0] /D [/Separation /Whitest 0]", "/C cs 1 scn", "/D cs 1 scn"},
      {"/C#2g#4a#2 [/Separation /whit#65_ 0] /D" + gold, "/C#232gJ#2 cs 1 scn", "/D cs 1 scn"},
      {"/C" + gold, "/C cs 1 scn", ""},  // the page's only spot
      {"/C [/Separation /RDG_WHITE 0]", "/C cs 1 scn", ""},
      {"/C" + gold + "/D" + gold, "", "/C cs 1 scn|/D cs 1 scn"},
      {"/C" + gold + "/D" + white, "/D cs 1 scn", "/C cs 1 scn"},
      {"/C [/Separation /All 0] /D [/Separation /None 0] /E [/DeviceN [/Cyan] 0]", "",
       "/C cs 1 scn|/D cs 1 scn|/E cs 1 scn"},
      {"/C" + gold + "/C" + white, "/C cs 1 scn", ""},  // the last of two
      {"/C [/DeviceN [/Cyan /Magenta /White] 0]", "/C cs 0 0 0.5 scn|/C cs 0 1 scn", "/C cs 1 0 0 scn"},
      {"/A [[/X 1] 2] /B <</W 1>> /D /E /C" + white, "/C cs 1 scn", ""},
      {"/C 20 0 R /D 80 0 R", "/C cs 1 scn", "/D cs 1 scn"},  // a chain and a circle
      {"/ " + white, "1 scn", ""},
      {">> /ColorSpace <</C" + white, "", "/C cs 1 scn"},  // the first list of two
      {">> /ColorSpace 90 0 R /X <<", "", "/C cs 1 scn"},
  };
  for (const auto& c : cases) {
    const auto paints = [&](const std::string& content) {
      PdfFile file = one_page("/ColorSpace <<" + c.spaces + ">>", content + " 0 0 10 10 re f");
      file.object(20, "21 0 R").object(21, white).object(80, "80 0 R").object(90, "<</C" + white + ">>");
      const SpotWhiteResult page = extract(file);
      const bool is_found = !page.spot_white_coverage.empty();
      EXPECT_EQ(page.facts.white_is_guess, is_found && c.spaces == "/C" + gold);
      return is_found;
    };
    for (const auto& content : split(c.painted)) EXPECT_TRUE(paints(content)) << c.spaces << content;
    for (const auto& content : split(c.unpainted)) EXPECT_FALSE(paints(content)) << c.spaces << content;
  }
}

TEST(SpotWhite, PaintsStraightShapes) {
  const struct {
    const char *what, *content;
    std::string art;
  } cases[] = {
      {"a rectangle, rounded outward", "1.2 8.6 2 1 re f", ".###......\n"},
      {"a negative size", "4 10 -3 -2 re F", ".###......\n.###......\n"},
      {"even-odd inside a subpath", "0 10 m 6 10 l 6 9 l 2 9 l 2 10 l 4 10 l 4 9 l 0 9 l f*", "##..##....\n"},
      {"a hole in a second subpath", "0 7 4 3 re 1 8 1 1 re f*", "####......\n####......\n####......\n"},
      {"a line without a start", "0 10 l 2 10 l 2 9 l f", ".#........\n"},
      {"missing numbers are 0", "10 m 3 10 l 7 l f", "###.......\n##........\n#.........\n"},
      {"words between the numbers", "0 9 /a 2 b [ 1 ] re f", "##........\n"},
      {"a closed shape continues", "2 9 m 0 9 l 0 10 l h 2 10 l f", "#.........\n"},
      {"ended without paint", "0 9 2 1 re n f", ""},
      {"painted by whatever comes next", "0 9 2 1 re B 4 9 1 1 re f", "##..#.....\n"},
      {"curves are a point", "0 9 m 1 1 2 2 3 3 c f", ""},
      {"scaled and moved", "2 0 0 1 4 9 cm 0 0 1 1 re f", "....##....\n"},
      {"matrices in order", "1 0 0 1 4 9 cm 2 0 0 1 0 0 cm 0 0 1 1 re f", "....##....\n"},
      {"turned and slanted", "0 1 -1 0 9 0 cm 1 0 2 1 1 1 cm 3 2 1 1 re f", ".....#....\n.....#....\n"},
      {"five operands move nothing", "0 0 1 4 9 cm 0 9 1 1 re f", "#.........\n"},
      {"six operands with five numbers", "/x 0 0 1 4 9 cm 0 0 9 1 re f", ""},
      {"a matrix restored", "q 1 0 0 1 4 0 cm Q Q 0 9 1 1 re f", "#.........\n"},
      {"a stroke of 2", "2 w 3 9 m 6 9 l S", "..#####...\n..#####...\n"},
      {"as wide as the wider axis", "3 0 0 1 0 0 cm 1 8.5 m 1.3 8.5 l S",
       "..###.....\n.####.....\n..###.....\n"},
      {"hairlines", "0 w 2 9.5 m 5 9.5 l 7 9.5 m 8 9.5 l S", ".########.\n"},
      {"a width without a number", "7 w /x w 2 9.5 m 5 9.5 l S", ".#####....\n"},
      {"closed by s", "1.5 7.5 m 1.5 9.5 l 3.5 9.5 l 3.5 7.5 l s", ".###......\n.#.#......\n.###......\n"},
      {"closed by h", "1.5 7.5 m 1.5 9.5 l 3.5 9.5 l 3.5 7.5 l h S", ".###......\n.#.#......\n.###......\n"},
      {"a stroke in another colour clears the path", "/X CS 0 9 2 1 re S f", ""},
      {"far off the page", "-1e30 -1e30 2e30 2e30 re 1e300 0 m 0 1e300 l 5 5 l f",
       repeat("##########\n", 10)},
      {"numbers that are none", "nan nan 5 5 re inf 0 m 0 inf l 5 5 l f nan w 0 0 m nan inf l S", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(art(extract(one_page(kWhite, kUse + c.content)).spot_white_coverage), c.art) << c.what;
}

TEST(SpotWhite, StretchesTheBoxAndRunsOnFromStreamToStream) {
  PdfFile file;
  file.object(1, "/Type /Page /MediaBox [5 -5 25 0] /Contents [2 0 R 3 0 R] /Resources <<" + kWhite + ">>");
  file.stream(2, "", kUse + "8 -1 2 1 re 7 8").stream(3, "", "9 m f");
  EXPECT_EQ(art(extract(file).spot_white_coverage), ".##.......\n.##.......\n");
}

TEST(SpotWhite, LimitsAPath) {
  const std::string point = "m\n", line = "1 9 l\n", rectangle = "0 9 5 1 re ";
  const std::pair<std::string, std::string> cases[] = {
      {repeat(point, 249'995) + line, kVectors},
      {repeat(point, 249'996) + point, kAborted},
      {repeat(point, 249'996) + line, kAborted},
      {repeat(point, 249'996) + "h ", kAborted},
      {repeat(point, 249'992) + rectangle, kVectors},
      {repeat(point, 249'993) + rectangle, kAborted},
      {repeat(point, 249'996) + "f " + rectangle + repeat(point, 249'996), kVectors}};
  for (const auto& [path, status] : cases)
    EXPECT_EQ(extract(one_page(kWhite, kUse + rectangle + path + "f")).status, status) << path.size();
}

/// A page with one image, `/I` or `/K`, painted by `content`.
PdfFile image_page(const std::string& keys, const std::string& samples,
                   const std::string& content = "10 0 0 10 0 0 cm /I Do", const std::string& resources = "") {
  PdfFile file = one_page(resources + "/XObject <</I 5 0 R /K 5 0 R>>", content);
  return file.flate(5, "/Subtype /Image " + keys, samples);
}

const std::string kTwoByTwo = "/Width 2 /Height 2 /BitsPerComponent 8 ";
const std::string kWhiteSamples = " /BitsPerComponent 8 /ColorSpace [/Separation /White 0] ";
const std::string kWhiteImage = "/Width 2 /Height 2" + kWhiteSamples;
const std::string kFour = "\xFF\x80\x01\x00"s;

TEST(SpotWhite, PaintsImages) {
  const std::string left = "#####+++++\n", right = "+++++.....\n";
  const struct {
    const char *what, *content;
    std::string art;
  } cases[] = {
      {"the whole page", "10 0 0 10 0 0 cm /I Do", repeat(left, 5) + repeat(right, 5)},
      {"upside down", "10 0 0 -10 0 10 cm /K Do", repeat(right, 5) + repeat(left, 5)},
      {"half off the page", "4 0 0 4 -2 6 cm /I Do", "++........\n++........\n"},
      {"by the middles of pixels", "1.2 0 0 1 0.4 8.6 cm /I Do", "#+........\n"},
      {"turned by 90 degrees", "0 2 -2 0 2 8 cm /I Do", "+.........\n#+........\n"},
      {"slanted", "2 0 2 2 0 8 cm /I Do", ".#+.......\n+.........\n"},
      {"without area", "2 0 0 0 0 8 cm /I Do", ""},
      {"the greater sample stays", "2 0 0 2 0 8 cm /I Do 1 0 0 -1 0 1 cm /I Do", "#+........\n#+........\n"},
      {"unknown names", "2 0 0 2 0 8 cm /J Do Do", ""},
      {"restored", "q 2 0 0 2 0 8 cm Q 1 0 0 1 8.6 8.6 cm /x /I Do", ".........+\n"},
      {"far off the page", "1e200 0 0 1e200 0 0 cm /I Do inf 0 0 inf 0 0 cm /I Do", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(art(extract(image_page(kWhiteImage, kFour, c.content)).spot_white_coverage), c.art) << c.what;
}

TEST(SpotWhite, UnderstandsTheseImages) {
  const std::string gold = "[/Separation /Gold 0] ", indices = "\1\2\3\0"s;
  const struct {
    std::string samples, spaces, painted, unpainted;  // the image's colour space and keys, between bars
  } cases[] = {
      {kFour, "", "6 0 R|" + gold,
       "/DeviceGray|[/Separation /All 0]|/C|6 0 R /BitsPerComponent 4|6 0 R /Height 3|6 0 R /Width 1|"
       "6 0 R /Height 0"},
      {kFour, "/C1 6 0 R /D /D /E 6 0 R /E /DeviceGray", "/C#31|/E", "/D|" + gold},
      {kFour, "/A" + gold, gold, ""},
      {kFour, "/A" + gold + "/B" + gold, "", gold},
      {"\xFF\x81\x01\xFF"s, "", "6 0 R /DecodeParms <</Predictor 2>>", ""},
      {indices, "", "[/Indexed 6 0 R 3 7 0 R]|[/Indexed 6 0 R 3 8 0 R]",
       // too short, too long, inline, no separation
       "[/Indexed 6 0 R 5 8 0 R]|[/Indexed 6 0 R 2 7 0 R]|[/Indexed 6 0 R 3 <00ff8001>]|"
       "[/Indexed /DeviceGray 3 7 0 R]|[/Indexed 6 0 R inf 7 0 R]"},
      {"\1\2\2\3"s, "", "[/Indexed 6 0 R 2 8 0 R]", ""},  // 3 lies beyond the table
  };
  for (const auto& c : cases) {
    const auto picture = [&](const std::string& keys) {
      PdfFile file = image_page("/ColorSpace " + keys + kTwoByTwo, c.samples, "10 0 0 2 0 8 cm /I Do",
                                "/ColorSpace <<" + c.spaces + ">>");
      file.object(6, "[/Separation /White 0]").stream(7, "", "\0\xFF\x80\1"s);
      const auto page = extract(file.object(8, "(\\000\xFF\\200\\1\\\n1)"));
      EXPECT_EQ(page.facts.white_is_guess, keys == gold && !page.spot_white_coverage.empty()) << keys;
      return art(page.spot_white_coverage);
    };
    for (const auto& keys : split(c.painted))
      EXPECT_EQ(picture(keys), "#####+++++\n+++++.....\n") << keys << c.spaces;
    for (const auto& keys : split(c.unpainted)) EXPECT_EQ(picture(keys), "") << keys << c.spaces;
  }
}

TEST(SpotWhite, SoftMasksAreProcessAlpha) {
  const auto with_mask = [](const std::string& image, const std::string& mask) {
    PdfFile file = image_page(image + "/SMask 6 0 R", kFour, "10 0 0 2 0 8 cm /I Do");
    return extract(file.flate(6, kTwoByTwo + mask, "\x01\xFF\x00\xFF"s));
  };
  const std::string shown = "+++++#####\n.....#####\n";
  const auto gray = with_mask(kTwoByTwo + "/ColorSpace /DeviceRGB", "/ColorSpace /DeviceGray");
  EXPECT_EQ(art(gray.process_alpha_coverage), shown);
  EXPECT_TRUE(gray.spot_white_coverage.empty());
  EXPECT_EQ(gray.status, kNotNeeded);

  EXPECT_EQ(art(with_mask("", "").process_alpha_coverage), shown) << "the image itself need not be readable";
  EXPECT_TRUE(with_mask("", "/ColorSpace /DeviceRGB").process_alpha_coverage.empty());
  const SpotWhiteResult white = with_mask(kWhiteImage, "");
  EXPECT_EQ(art(white.process_alpha_coverage), shown);
  EXPECT_EQ(white.status, kImages);
}

TEST(SpotWhite, MergesPassesAndDropsAbortedOnes) {
  const std::string shape = kUse + "0 9 2 1 re f ", image = "q 10 0 0 1 0 8 cm /I Do Q ";
  const auto result = [&](const std::string& content) {
    return extract(image_page(kWhiteImage, kFour, content, kWhite));
  };
  const auto both = result(shape + image + "10 0 0 1 0 9 cm /I Do");
  EXPECT_EQ(art(both.spot_white_coverage), "##+++.....\n+++++.....\n");
  EXPECT_EQ(both.status, "extracted vector and image spot-white masks");
  EXPECT_EQ(result(shape).status, kVectors);
  EXPECT_EQ(result(image).status, kImages);

  // Path operators are unknown to the pass over images, and Do to the other one.
  EXPECT_EQ(result(shape + repeat("0 m ", 2100)).status, kVectors + kOneAborted);
  EXPECT_EQ(result(kUse + repeat("/I Do ", 2100) + image).status, kImages + kOneAborted);
  EXPECT_EQ(result(repeat("q ", 129)).status, kAborted);
}

/// A sheet of images whose samples together exceed any store of decoded ones, in turns.
TEST(SpotWhite, GangSheetsKeepTheirWhite) {
  constexpr int images = 12, side = 3000;
  const std::string samples = deflated(std::string(side * side, '\xFF'));
  const std::string sides = "/Width 3000 /Height 3000 ";
  std::string names, content;
  PdfFile file;
  for (int i = 0; i < images; ++i) {
    names += "/I" + std::to_string(i) + " " + std::to_string(5 + i) + " 0 R ";
    file.stream(5 + i, "/Subtype /Image /SMask 40 0 R /Filter /FlateDecode " + sides + kWhiteSamples,
                samples);
  }
  file.stream(40, "/Filter /FlateDecode /BitsPerComponent 8 " + sides, samples);
  for (int i = 0; i < 300; ++i)
    content += "q 1 0 0 1 " + std::to_string(i % 10) + " " + std::to_string(i / 10) + " cm /I" +
               std::to_string(i % images) + " Do Q ";
  file.object(1,
              "/Type /Page /MediaBox [0 0 10 30] /Contents 2 0 R /Resources <</XObject <<" + names + ">> >>");
  file.flate(2, "", content);
  const SpotWhiteResult sheet = extract(file, 100, 300);
  EXPECT_EQ(sheet.status, kImages);
  EXPECT_EQ(sheet.spot_white_coverage, std::vector<std::uint8_t>(30'000, 255));
  EXPECT_EQ(sheet.process_alpha_coverage, sheet.spot_white_coverage);
}

TEST(SpotWhite, ImagesHaveALimitOfTheirOwn) {
  const auto coverage = [](int side) {
    const std::string sides = "/Width " + std::to_string(side) + " /Height " + std::to_string(side);
    const std::string samples(static_cast<std::size_t>(side) * static_cast<std::size_t>(side), '\xFF');
    return extract(image_page(sides + kWhiteSamples, samples)).spot_white_coverage;
  };
  EXPECT_EQ(coverage(4096), std::vector<std::uint8_t>(100, 255));
  EXPECT_TRUE(coverage(4097).empty());
}

}  // namespace
}  // namespace nvo::test
