#include "core/text.h"

#include <gtest/gtest.h>

#include "core/fnv1a.h"

namespace nvo {
namespace {

TEST(Utf8, AcceptsOnlyWellFormedText) {
  for (const std::string text :
       {"", "plain", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x96\xA8", "\xF4\x8F\xBF\xBF", "\xED\x9F\xBF"})
    EXPECT_TRUE(is_valid_utf8(text)) << text;
  for (const std::string text :
       {"\x80", "a\xBF", "\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xC3", "\xE2\x82", "\xF0\x9F\x96", "\xC3(", "\xFF"})
    EXPECT_FALSE(is_valid_utf8(text)) << text;
}

TEST(Text, SmallHelpers) {
  EXPECT_EQ(trim(" \t\v a b\r\n\f"), "a b");
  EXPECT_EQ(trim(" \n "), "");
  EXPECT_EQ(lower_extension("/a.b/FILE.TiFF"), "tiff");
  EXPECT_EQ(lower_extension("dot."), "");
  EXPECT_EQ(lower_extension("jpeg"), "");
  EXPECT_EQ(sanitize_name("a\"b*c/d:e<f>g?h\\i|j\x01k\x7fl \xC3\xA9"), "a_b_c_d_e_f_g_h_i_j_k_l \xC3\xA9");
  EXPECT_EQ(sanitize_name(""), "image");
  EXPECT_EQ(escape_json("a\"\\\b\f\n\r\t\x1f\x7f\xC3\xA9", "bfnrt"),
            "a\\\"\\\\\\b\\f\\n\\r\\t\\u001f\x7f\xC3\xA9");
  EXPECT_EQ(escape_json("\b\f\n\r\t", "tnr"), "\\u0008\\u000c\\n\\r\\t");
}

TEST(Fnv1a, MatchesThePublishedVectorWholeAndInParts) {
  EXPECT_EQ(fnv1a("foobar", 6), 0x85944171f73967e8ULL);
  EXPECT_EQ(fnv1a("bar", 3, fnv1a("foo", 3)), 0x85944171f73967e8ULL);
}

}  // namespace
}  // namespace nvo
