#include "app/app_version.h"

#include <gtest/gtest.h>

namespace nvo {
namespace {

TEST(VersionJson, KeepsOrderAndEscapes) {
  EXPECT_EQ(version_json({"a\"b", "c\\d", "\t\x01", "\xC3\xA9", "x64"}),
            R"({"version":"a\"b","build_id":"c\\d","channel":"\t\u0001","platform":")"
            "\xC3\xA9"
            R"(","arch":"x64"})");
}

}  // namespace
}  // namespace nvo
