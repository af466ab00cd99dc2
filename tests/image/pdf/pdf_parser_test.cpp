#include <cerrno>
#include <cmath>
#include <optional>
#include <sstream>

#include "image/image_test.h"
#include "image/pdf/pdf_file.h"
#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_stream.h"
#include "image/pdf/pdf_tokens.h"

namespace nvo::test {
namespace {

/// Types as letters (n number, / name, w word, [ ] { } brackets), then the text.
std::string shown(std::string_view text) {
  std::string line;
  for (const PdfToken& token : tokenize_pdf(text))
    line += "n/w[]{}"[static_cast<int>(token.type)] + (":" + std::string(token.text) + " ");
  return line;
}

TEST(PdfTokens, SplitsTextAtDelimiters) {
  const std::pair<std::string, std::string> cases[] = {
      {"<</A#20b[.5-1 -2]>>", "{:<< /:/A#20b [:[ w:.5-1 n:-2 ]:] }:>> "},
      {"a%comment (\rb%x\nc", "w:a w:b w:c "},
      {"a(b\\)(c)\\\\)d", "w:a w:d "},
      {"a(never closed / 1 2", "w:a "},
      {"(a\\", ""},
      {"<4142> <ff> )}{><a", "n:4142 w:ff w:a "},
      {"//\0/x\0y"s, "/:/ /:/ /:/x w:y "},
      {"<<<>>>f*\"'", "{:<< }:>> w:f*\"' "},
      {"\v7\f8", "n:\v7 n:8 "},
  };
  for (const auto& [text, tokens] : cases) EXPECT_EQ(shown(text), tokens) << text;
}

TEST(PdfTokens, ReadsNumbersAsStrtod) {
  std::istringstream words(
      "0 -0 +5 --5 +-5 5. .5 . - + 1e3 1e 1e+ 1E-3 1d3 0x10 0X.8p1 0x 0x. 0x1p 0xg 0x-1 0xinf 0xnan inf -INF "
      "nan -nAn infin InFiNity 1e308 1e309 -1e309 1e-307 1e-400 0e-400 0.0e999 1e99999999999999999999 \v1 "
      "\v+1 "
      "+\v1 1\v 12abc 1,5 0b1 00012 123456789012345678901234567890 0x1p2000 0x1.8 1_0 1.2.3 1-2 4.9e-324");
  for (std::string word; std::getline(words, word, ' ');) {
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(word.c_str(), &end);
    const bool is_number = errno == 0 && end != word.c_str() && *end == '\0';
    const auto actual = parse_pdf_number(word);
    ASSERT_EQ(actual.has_value(), is_number) << word;
    if (!is_number) continue;
    EXPECT_TRUE(*actual == value || (std::isnan(*actual) && std::isnan(value))) << word;
    EXPECT_EQ(std::signbit(*actual), std::signbit(value)) << word;
  }
}

TEST(PdfTokens, KeepsItsLimitAndNotOneMore) {
  const std::string text(kMaxPdfTokens, '[');
  EXPECT_THAT(tokenize_pdf(text + " %]\n("), ::testing::SizeIs(kMaxPdfTokens));
  EXPECT_THAT(tokenize_pdf(text + ']'), IsEmpty());
}

TEST(PdfTokens, LooksUpFlatly) {
  const PdfTokens tokens =
      tokenize_pdf("/W /W 2.5 /A [ [ ] << ] 7 ] /B << [ >> /P 3 R /P 4 0 R /I 1e10 /J nan /K -1.5 /L [ ( 1");
  EXPECT_EQ(find_integer(tokens, "/W"), 3);
  EXPECT_EQ(find_integer(tokens, "/K"), -2);
  for (const char* key : {"/I", "/J", "/w"}) EXPECT_EQ(find_integer(tokens, key), std::nullopt) << key;
  EXPECT_EQ(find_reference(tokens, "/P"), 4);
  const std::pair<const char*, std::size_t> lengths[] = {{"/W", 1}, {"/A", 5}, {"/B", 3}, {"/L", 1}};
  for (const auto& [key, length] : lengths) {  // brackets balance against their own kind
    const auto span = find_value_span(tokens, key);
    ASSERT_TRUE(span) << key;
    EXPECT_EQ(span->last + 1 - span->first, length) << key;
  }
}

TEST(PdfObjects, AreFoundByTheirKeywords) {
  const std::pair<const char*, const char*> cases[] = {
      {"5 0 obj a endobj 5 1 obj b endobj", "5: b "},
      {"%5 0 obj a endobj\n6 0 obj b endobj", "6: b "},
      {"(5 0 obj a endobj)", "5: a "},
      {"x12%c\n0%d\robjaendobj", "12:a"},
      {"1 2 3 obj a endobj", "2: a "},
      {"1 0 obj 2 0 obj a endobj 3 0 obj b", "1: 2 0 obj a "},
      {"10 obj a endobj -3 0 obj b endobj", "3: b "},
      {"2147483647 0 obj a endobj", "2147483647: a "},
      {"92147483648 0 obj a endobj", "147483648: a "},
      {"90000000000000000000005 00000000000000000 obj a endobj", "5: a "},
      {"1 2147483648 obj a endobj 1 0 OBJ a endobj 1 0 ob", ""},
  };
  for (const auto& [bytes, objects] : cases) {
    std::string found;
    for (const auto& [number, object] : build_object_table(bytes))
      found += std::to_string(number) + ":" + std::string(object.text);
    EXPECT_EQ(found, objects) << bytes;
  }
}

TEST(PdfObjects, StopAtTheirLimitAndCountPagesByNumber) {
  std::string bytes;
  for (int i = 1; i <= 100'000; ++i) bytes += std::to_string(i) + " 0 obj a endobj ";
  bytes += "7 0 obj b endobj 100001 0 obj b endobj";
  const PdfObjectTable full = build_object_table(bytes);  // refers to the bytes
  EXPECT_EQ(full.size(), 100'000u);
  EXPECT_EQ(full.at(7).text, " a ");

  const auto table = build_object_table(
      "9 0 obj /Type /Page endobj 3 0 obj /Type/Page/B endobj 1 0 obj /Type /Pages endobj "
      "2 0 obj /Type 1 /Page endobj 4 0 obj (/Type /Page) endobj");
  EXPECT_THAT(find_pages(table), ElementsAre(&table.at(3), &table.at(9)));
}

TEST(PdfObjects, FindTheMediaBox) {
  const auto box_of = [](const std::string& page, const std::string& others) {
    const auto box = find_media_box(page, build_object_table(others));
    std::ostringstream text;
    if (box) text << box->x0 << box->y0 << box->x1 << box->y1;
    return text.str();
  };
  const char* const cases[][3] = {
      {"/MediaBox [1 2 x 3 4 5 6", "", "1234"},
      {"/MediaBox [1 2 3] /MediaBox [0 0 9 9]", "", "0099"},
      {"/MediaBox [5 5 5 9] /MediaBox [nan 0 1 1] /MediaBox [0 0 9 9]", "", "0099"},
      {"/MediaBox [/MediaBox [5 5 1 1 ] /MediaBox [ /MediaBox [0 0 9 9]", "", "0099"},
      {"/MediaBox [9 /MediaBox [0 0 9 9]", "", "0099"},
      {"(/MediaBox [0 0 1 1])", "", ""},
      {"/MediaBox 7 0 R", "7 0 obj [0 0 1 1] endobj", ""},
      {"/Parent 7 0 R", "7 0 obj /Parent 8 0 R endobj 8 0 obj /MediaBox [0 0 1 1] endobj", "0011"},
      {"/Parent 7 0 R", "7 0 obj /Parent 7 0 R endobj", ""},
  };
  for (const auto& [page, others, box] : cases) EXPECT_EQ(box_of(page, others), box) << page;

  const auto chain = [](int ancestors) {
    std::string others;
    for (int i = 1; i < ancestors; ++i)
      others += std::to_string(i) + " 0 obj /Parent " + std::to_string(i + 1) + " 0 R endobj ";
    return others + std::to_string(ancestors) + " 0 obj /MediaBox [0 0 1 1] endobj";
  };
  EXPECT_EQ(box_of("/Parent 1 0 R", chain(16)), "0011");
  EXPECT_EQ(box_of("/Parent 1 0 R", chain(17)), "");
}

TEST(PdfStreams, AreCutAndInflated) {
  const std::string packed = deflated("hello");
  const std::string flate = "<</filter/FLATEdecode/Length " + std::to_string(packed.size()) + ">>stream\n";
  const struct {
    std::string text, data;
    std::uint64_t max_bytes = 1000;
  } cases[] = {
      {"<</Length 3>>stream\r\nabcdef endstream", "abc"},
      {"<</Length 4>>stream\nabc", "failed"},
      {"<</Length 99>>stream\rabc endstream", "abc "},
      {"<</Length -1 /Length 2>>streamabc endstream", "ab"},
      {"<</Length inf>>streamabc endstream", "abc "},
      {"<</Length 2 0 R>>stream\nabc endstream", "ab"},
      {"<</Length 3>>", "failed"},
      {"<</Length 3>>stream\nabc", "abc", 3},
      {"<</Length 3>>stream\nabc", "failed", 2},
      {"<</Length 0>>stream\nabc", "failed", 0},
      {"<</Filter/ASCIIHexDecode/Length 3>>stream\nabc", "abc"},
      {flate + packed, "hello", 5},
      {flate + packed, "failed", 4},
      {"<</Filter/FlateDecode>>stream\n" + packed + "\nendstream", "hello"},
      {"<</Filter/FlateDecode/Length 10 0 R>>stream\n" + packed, "failed"},
      {"<</Filter[/ASCII85Decode/FlateDecode]/Length 5>>stream\nabcde", "failed"},
      {"<</Filter/FlateDecode/Length 0>>stream\n", "failed"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(decode_stream(c.text, tokenize_pdf(c.text), c.max_bytes).value_or("failed"), c.data) << c.text;

  const std::string fits(16 << 20, 'x');
  EXPECT_EQ(decode_stream("/FlateDecode stream" + deflated(fits + 'x') + "endstream", {}, 64 << 20),
            std::nullopt);
}

TEST(PdfStreams, StringsOfObjects) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {" (a(b)c) d", "a(b)c"},
      {"(\\n\\r\\t\\b\\f\\(\\)\\\\\\q)", "\n\r\t\b\f()\\q"},
      {"(\\0\\12\\1234\\777\\8)", "\0\nS4\xFF"s + "8"},
      {"(a\\\r\nb\\\nc\r\nd\re)", "abc\nd\ne"},
      {"<41 4\n2f>", "AB\xF0"},
      {"(never closed", std::nullopt},
      {"(a\\", std::nullopt},
      {"<41g>", std::nullopt},
      {"<41", std::nullopt},
      {"7 (a)", std::nullopt}};
  for (const auto& [text, value] : cases) EXPECT_EQ(decode_pdf_string(text), value) << text;
}

TEST(PdfContents, AreLoadedInOrderOrNotAtAll) {
  PdfFile file;
  file.stream(1, "", "one").flate(2, "", "two").stream(3, "/Filter /FlateDecode", "damaged");
  file.stream(4, "", "")
      .stream(5, "", std::string(16 << 20, 'x'))
      .stream(6, "", std::string((16 << 20) + 1, 'x'));
  const PdfObjectTable table = build_object_table(file.text());
  EXPECT_THAT(load_page_contents("/Contents [2 0 R 1 0 R 2 0 R]", table), ElementsAre("two", "one", "two"));
  EXPECT_THAT(load_page_contents("/Contents 7 /Contents 1 0 R", table), ElementsAre("one"));
  EXPECT_THAT(load_page_contents("/Contents [4 0 R 1 0 R 9 0 R]", table), ElementsAre("", "one"));
  EXPECT_EQ(load_page_contents("/Contents [5 0 R 5 0 R]", table).size(), 2u);
  // Damaged, none, missing, too long for one stream, then for all; the last token counts as the bracket.
  const char* const unreadable[] = {
      "/Contents [1 0 R 3 0 R]",       "/Contents [ ]",     "/Contents 9 0 R", "/Contents 6 0 R",
      "/Contents [5 0 R 5 0 R 4 0 R]", "/Contents [7 1 0 R"};
  for (const char* page : unreadable) EXPECT_THAT(load_page_contents(page, table), IsEmpty()) << page;
}

}  // namespace
}  // namespace nvo::test
