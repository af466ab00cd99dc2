#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "image/pdf/pdf_file.h"
#include "image/pdf/spot_white.h"

namespace nvo::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kBytes = 1 << 20;
#else
constexpr std::size_t kBytes = 4 << 20;
#endif
/// Several times what the slowest of these takes on an idle machine; quadratic time would be minutes.
constexpr double kMostSeconds = 20.0;

std::string filled(std::string_view piece, std::size_t bytes = kBytes) {
  std::string text;
  while (text.size() < bytes) text += piece;
  return text;
}

double seconds_of(std::string_view bytes, std::uint32_t side, std::string& status) {
  const std::clock_t start = std::clock();  // processor time: other programs may hold this one up
  status = extract_spot_white_from_bytes(bytes, 0, side, side).status;
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

void expect_quick(const std::string& what, std::string_view bytes, std::uint32_t side = 64) {
  std::string status;
  const double seconds = seconds_of(bytes, side, status);
  EXPECT_LT(seconds, kMostSeconds) << what << ": " << status;
  if (std::getenv("NVO_SHOW_TIMES")) std::printf("%7.3f s  %s: %s\n", seconds, what.c_str(), status.c_str());
}

/// The piece again and again: alone, in an object, as a page's object and as its content.
TEST(SpotHostile, AnythingRepeatedIsLinear) {
  const std::string_view pieces[] = {"1 0 obj",
                                     "(",
                                     "<<",
                                     "[",
                                     "9",
                                     "1",
                                     "1 ",
                                     "%",
                                     "%\n",
                                     "/",
                                     "<",
                                     "\\",
                                     " ",
                                     "0",
                                     "1 0 obj a endobj ",
                                     "endobj",
                                     "stream",
                                     "endstream",
                                     "/MediaBox [",
                                     "/MediaBox[1 ",
                                     "/Parent 1 0 R ",
                                     "/Length 1 ",
                                     "/Contents [",
                                     "1 0 R ",
                                     "/A [",
                                     "/ColorSpace ",
                                     "/Separation ",
                                     "/DeviceN [",
                                     "/White",
                                     "#41",
                                     "0x1",
                                     "1e",
                                     "q ",
                                     "m l ",
                                     "1 1 m 1 1 l "};
  for (const std::string_view piece : pieces) {
    const std::string text = filled(piece);
    expect_quick("bytes " + std::string(piece), text);
    expect_quick("in an object " + std::string(piece), "1 0 obj " + text + " endobj");
    expect_quick("in a page " + std::string(piece),
                 "1 0 obj /Type /Page /Parent 1 0 R " + text + " endobj 2 0 obj a endobj");
    PdfFile page;
    page.object(1,
                "/Type /Page /MediaBox [0 0 9 9] /Contents 2 0 R /Resources <</ColorSpace << /W "
                "[/Separation /White] >>>>");
    expect_quick("in content " + std::string(piece), page.stream(2, "", text).text());
  }
}

/// One big object, named by as many places as there is room for.
TEST(SpotHostile, BigObjectsAreReadOnce) {
  const std::string big = filled("/Aaaaaaaaa ", kBytes / 2);
  const std::string page = "/Type /Page /MediaBox [0 0 9 9] /Contents 2 0 R /Resources ";
  const auto file = [&](const std::string& resources, const std::string& object) {
    return PdfFile().object(1, page + resources).stream(2, "", "/A Do").object(5, object).text();
  };
  const std::string many = filled("/A 5 0 R ", kBytes / 4);
  expect_quick("colour spaces", file("<</ColorSpace <<" + many + ">> >>", "[/Separation /Gold " + big));
  expect_quick("images", file("<</XObject <<" + many + ">> >>", "/Subtype /Image " + big));
  expect_quick("look-ups", file("<</XObject <</A 6 0 R>> /ColorSpace <<" +
                                    filled("/A [/Indexed [/Separation /B] 9 5 0 R] ", kBytes / 4) + ">> >>",
                                "(" + big) +
                               "6 0 obj /Subtype /Image /ColorSpace [/Separation /Gold] endobj");

  PdfFile contents;
  contents.object(
      1, "/Type /Page /MediaBox [0 0 9 9] /Resources <<>> /Contents [" + filled("5 0 R ", kBytes / 4) + "]");
  std::string no_output = "\x78\x9C";  // empty stored blocks, then the end
  for (std::size_t i = 0; i < kBytes / 2; i += 5) no_output.append("\0\0\0\xFF\xFF", 5);
  contents.stream(5, "/Filter /FlateDecode", no_output + std::string("\1\0\0\xFF\xFF\0\0\0\1", 9));
  expect_quick("contents", contents.text());
}

/// More paint than any page has ends in an aborted pass.
TEST(SpotHostile, PaintIsLimited) {
  const std::string keys = "/Subtype /Image /Width 1000 /Height 1000 /BitsPerComponent 8 /ColorSpace /W ";
  const std::string samples(1'000'000, '\x7F');
  const auto painted = [&](const std::string& what, const std::string& first, std::string_view piece) {
    PdfFile file;
    std::string again;
    for (int i = 0; i < 12; ++i) again += "2 0 R ";
    file.object(1, "/Type /Page /MediaBox [0 0 10 10] /Contents [3 0 R " + again +
                       "] /Resources <</ColorSpace <</W [/Separation /White 0]>> "
                       "/XObject <</I 5 0 R /J 6 0 R /K 7 0 R>> >>");
    const auto tokens = static_cast<std::size_t>(std::count(piece.begin(), piece.end(), ' '));
    file.flate(2, "", filled(piece, kBytes / 8 / tokens * piece.size()));
    file.stream(3, "", "/W cs 1 scn /W CS 1 SCN " + first);
    file.flate(5, keys, samples).flate(6, keys, samples).flate(7, "/SMask 5 0 R" + keys, samples);
    expect_quick(what, file.text(), 2000);
  };
  painted("images", "9 1 -1 9 0 0 cm ", "/I Do /J Do /K Do ");
}

}  // namespace
}  // namespace nvo::test
