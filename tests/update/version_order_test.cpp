#include "update/version_order.h"

#include <tuple>

#include <gtest/gtest.h>

namespace nvo {
namespace {

TEST(VersionOrder, FollowsCoreThenPreRelease) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"1.2", "1.2.0", 0},
      {" V1", "v1\n", 0},
      {"1.2.0+a", "1.2.0+b", 0},
      {"1.2.0+a-rc", "1.2.0", 0},
      {"1.10", "1.9", 1},
      {"1.2.0-rc.1", "1.2.0", -1},
      {"1.2.0-RC.2", "1.2.0-rc.10", -1},
      {"1-rc.007", "1-rc.7", 0},
      {"1-99999999999999999999998", "1-99999999999999999999999", -1},
      {"1-9", "1-alpha", -1},
      {"1-alpha", "1-alpha.0", -1},
      {"1-a-b", "1-a", 1},
      {"1.0.1-rc", "1.0.0", 1},
      {"", "0", -1},
      {"1..2", "0.1", -1},
      {"99999999999999999999", "1", -1},  // no number of 64 bits
      {"B", "a", 1},
  };
  for (const auto& [a, b, order] : cases) {
    EXPECT_EQ(compare_versions(a, b), order) << a << " : " << b;
    EXPECT_EQ(compare_versions(b, a), -order) << b << " : " << a;
  }
}

TEST(VersionOrder, AnotherBuildIsOneOfAnEqualVersion) {
  EXPECT_TRUE(is_other_build_of_same_version("1.2", "7", "1.2.0", "8"));
  EXPECT_TRUE(is_other_build_of_same_version("1.2", "7", "1.2.0", ""));
  EXPECT_FALSE(is_other_build_of_same_version("1.2", " Dev", "1.2.0", "dev "));
  EXPECT_FALSE(is_other_build_of_same_version("1.2", "7", "1.3", "8"));
  EXPECT_FALSE(is_other_build_of_same_version("same", "7", "same", "8")) << "no versions";
}

}  // namespace
}  // namespace nvo
