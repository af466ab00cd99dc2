#include <ctime>
#include <sstream>
#include <string_view>

#include "image/image_test.h"
#include "image/pdf/pdf_file.h"
#include "image/pdf/spot_white.h"
#include "support/seed_replay.h"

// The fuzz targets, each compiled under a name of its own. They check what comes out.
extern "C" int fuzz_pdf_inflate(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_pdf_tokens(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_spot_content(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_spot_white(const std::uint8_t* data, std::size_t size);

namespace nvo::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsInstrumented = true;
#else
constexpr bool kIsInstrumented = false;
#endif
constexpr std::size_t kBytes = kIsInstrumented ? 1 << 19 : 2 << 20;
/// Several times what the slowest of these takes on a busy machine; quadratic time would be minutes.
constexpr double kMostSeconds = 20.0;

const std::string kPage = "/Type /Page /MediaBox [0 0 9 9] ";
const std::string kWhiteSpace = "/ColorSpace <</W [/Separation /White 0]>> ";

std::string filled(std::string_view piece, std::size_t bytes = kBytes) {
  std::string text;
  while (text.size() < bytes) text += piece;
  return text;
}

/// Extracts, and returns the status. Counts processor time, for other programs may hold this one up.
std::string expect_quick(const std::string& what, std::string_view bytes, std::uint32_t width = 64,
                         std::uint32_t height = 64) {
  const std::clock_t start = std::clock();
  const std::string status = extract_spot_white_from_bytes(bytes, 0, width, height).status;
  const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  EXPECT_LT(seconds, kMostSeconds) << what << ": " << status;
  return status;
}

/// The piece again and again: alone, in an object, as a page's object and as its content.
TEST(SpotHostile, AnythingRepeatedIsLinear) {
  std::istringstream pieces(
      "1 0 obj|(|<<|[|9|1 |%|%\n|/|<|\\| |1 0 obj a endobj |endobj|stream|endstream|"
      "1 0 obj<<>>stream\n|xref\n|/MediaBox [|/MediaBox[1 |/Parent 1 0 R |/Length 1 |/Contents [|1 0 R |/A "
      "[|/ColorSpace |/Separation |"
      "/DeviceN [|/White|#41|1e|q |m l |0 0 9 9 re W n |1 1 m 1 1 l ");
  for (std::string piece; std::getline(pieces, piece, '|');) {
    const std::string text = filled(piece);
    expect_quick("bytes " + piece, text);
    expect_quick("in an object " + piece, "1 0 obj " + text + " endobj");
    expect_quick("in a page " + piece,
                 "1 0 obj /Type /Page /Parent 1 0 R " + text + " endobj 2 0 obj endobj");
    PdfFile page;
    page.object(1, kPage + "/Contents 2 0 R /Resources <<" + kWhiteSpace + ">>");
    expect_quick("in content " + piece, page.stream(2, "", text).text());
  }
}

/// One big object, named by as many places as there is room for.
TEST(SpotHostile, BigObjectsAreReadOnce) {
  const std::string big = filled("/Aaaaaaaaa ", kBytes / 2), many = filled("/A 5 0 R ", kBytes / 4);
  const auto extract = [&](const std::string& what, const std::string& resources, const std::string& object) {
    PdfFile file;
    file.object(1, kPage + "/Contents 2 0 R /Resources <<" + resources + ">>").stream(2, "", "/A Do");
    file.object(5, object).object(6, "/Subtype /Image /ColorSpace [/Separation /Gold]");
    expect_quick(what, file.text());
  };
  extract("colour spaces", "/ColorSpace <<" + many + ">>", "[/Separation /Gold " + big);
  extract("images", "/XObject <<" + many + ">>", "/Subtype /Image " + big);
  const std::string indexed = filled("/A [/Indexed [/Separation /B] 9 5 0 R] ", kBytes / 4);
  extract("look-ups", "/XObject <</A 6 0 R>> /ColorSpace <<" + indexed + ">>", "(" + big);

  std::string no_output = "\x78\x9C";  // empty stored blocks, then the end
  for (std::size_t i = 0; i < kBytes / 2; i += 5) no_output.append("\0\0\0\xFF\xFF", 5);
  PdfFile contents;
  contents.object(1, kPage + "/Resources <<>> /Contents [" + filled("5 0 R ", kBytes / 4) + "]");
  contents.stream(5, "/Filter /FlateDecode", no_output + std::string("\1\0\0\xFF\xFF\0\0\0\1", 9));
  expect_quick("contents", contents.text());
}

/// More paint than any page has ends in an aborted pass.
TEST(SpotHostile, PaintIsLimited) {
  if (kIsInstrumented) GTEST_SKIP() << "the limit is one of time";
  std::string zigzag = "0 0 m ";
  for (int i = 0; i < 9000; ++i)
    zigzag += std::to_string(i * 7919 % 9000 * 1e-3) + (i % 2 ? " 0 l " : " 9 l ");
  const struct {
    std::string what, content;
    std::uint32_t width = 2000, height = 2000;
  } cases[] = {
      {"turned images", "9 1 -1 9 0 0 cm " + filled("/I Do /J Do /K Do ", 100'000)},
      {"images on a narrow page", filled("/I Do ", 40'000), 1, 4'000'000},
      {"zigzags", filled(zigzag + "f ", 1 << 20)},
  };
  const std::string image = "/Subtype /Image /Width 1000 /Height 1000 /BitsPerComponent 8 /ColorSpace /W ";
  const std::string samples(1'000'000, '\x7F');
  std::string again;
  for (int i = 0; i < 12; ++i) again += "2 0 R ";
  for (const auto& c : cases) {
    PdfFile file;
    file.object(1, kPage + "/Contents [3 0 R " + again + "] /Resources <<" + kWhiteSpace +
                       "/XObject <</I 5 0 R /J 6 0 R /K 7 0 R>> >>");
    file.flate(2, "", c.content).stream(3, "", "/W cs 1 scn /W CS 1 SCN 9 0 0 9 0 0 cm ");
    file.flate(5, image, samples).flate(6, image, samples).flate(7, "/SMask 5 0 R" + image, samples);
    EXPECT_NE(expect_quick(c.what, file.text(), c.width, c.height).find("aborted"), std::string::npos)
        << c.what;
  }
}

TEST(PdfFuzzReplay, SeedsKeepTheContract) {
  const std::string corpus = NVO_FUZZ_CORPUS "/";
  EXPECT_GE(replay_seeds(corpus + "pdf_inflate", 1, fuzz_pdf_inflate), 3);
  EXPECT_GE(replay_seeds(corpus + "pdf_tokens", 2, fuzz_pdf_tokens), 3);
  EXPECT_GE(replay_seeds(corpus + "spot_content", 2, fuzz_spot_content), 3);
  EXPECT_GE(replay_seeds(corpus + "spot_white", 2, fuzz_spot_white), 3);
}

}  // namespace
}  // namespace nvo::test
