#include "config/print_modes.h"

#include <set>
#include <tuple>

#include <gtest/gtest.h>

namespace nvo {
namespace {

constexpr HeadConfig kI3200{0, 0}, kI1600{0, 1}, kXp600{0, 2};

TEST(PrintModes, EveryRowIsUsableAndUnique) {
  std::set<std::string> ids;
  for (const HeadConfig head : {kI3200, kI1600, kXp600}) {
    for (const PrintMode& mode : print_modes_for(head)) {
      EXPECT_TRUE(ids.insert(mode.id).second) << mode.id;
      const std::string size = std::to_string(mode.x_dpi) + "x" + std::to_string(mode.y_dpi);
      EXPECT_NE(mode.id.find(size), std::string::npos);
      EXPECT_TRUE(mode.passes > 0 && mode.bit_depth == 2) << mode.id;
      EXPECT_EQ(effective_print_mode(head, mode, {}).id, mode.id);
    }
  }
}

TEST(PrintModes, TheIdCountsThenTheResolutionAndBareNumbersOnlyWithoutAnId) {
  EXPECT_EQ(effective_print_mode(kI3200, {"stale", "", 360, 3600, 99, 2}, {}).id, "360x3600_6pass");
  EXPECT_EQ(effective_print_mode(kI3200, {"stale", "", 360, 3600, 6, 1}, {}).id, "720x1800_6pass");
  const PrintMode nameless{"", "", 720, 1200, 4, 2};
  const PrintMode legacy = effective_print_mode(kI3200, nameless, {1440, 720, 0});
  EXPECT_EQ(std::tuple(legacy.id, legacy.label, legacy.bit_depth),
            std::tuple("legacy_explicit_xy", "1440x720 4PASS", 2u));
  EXPECT_EQ(effective_print_mode(kI3200, nameless, {1440, 720, 9}).passes, 9u);
  EXPECT_EQ(effective_print_mode(kI3200, nameless, {1440, 0, 9}).id, "720x1200_4pass");
  EXPECT_EQ(effective_print_mode(kI3200, {"720x2400_8pass", "", 0, 0, 0, 0}, {1440, 720, 9}).y_dpi, 2400u);
}

}  // namespace
}  // namespace nvo
