#include "config/print_modes.h"

#include <set>
#include <tuple>

#include <gtest/gtest.h>

namespace nvo {
namespace {

constexpr HeadConfig kI3200{0, 0}, kI1600{0, 1}, kXp600{0, 2}, kUnknown{0, 9};

TEST(PrintModes, LookUpFallsFromIdToResolutionToDefault) {
  EXPECT_EQ(find_print_mode(kI3200, "720X1800_6PASS"), nullptr);
  EXPECT_EQ(find_legacy_print_mode("720x1800_6pass"), find_print_mode(kUnknown, "720x1800_6pass"));
  const std::tuple<HeadConfig, PrintMode, std::string> cases[] = {
      {kI1600, {"720x1200_4pass", "", 720, 1200, 4, 2}, "i1600_720x1200_observed"},
      {kI3200, {"stale", "", 360, 3600, 99, 2}, "360x3600_6pass"},
      {kI3200, {"stale", "", 360, 3600, 6, 1}, "720x1800_6pass"},
      {kXp600, {"xp600_720x2160", "", 1, 1, 1, 1}, "xp600_720x2160"},
      {kI1600, {}, "i1600_720x1800_observed"},
  };
  for (const auto& [head, mode, expected] : cases) EXPECT_EQ(resolve_print_mode(head, mode).id, expected);
}

TEST(PrintModes, EveryRowIsUsableAndUnique) {
  std::set<std::string> ids;
  for (const HeadConfig head : {kI3200, kI1600, kXp600}) {
    EXPECT_EQ(find_print_mode(head, default_print_mode(head).id), &default_print_mode(head));
    for (const PrintMode& mode : print_modes_for(head)) {
      EXPECT_TRUE(ids.insert(mode.id).second) << mode.id;
      EXPECT_NE(mode.id.find(std::to_string(mode.x_dpi) + "x" + std::to_string(mode.y_dpi)),
                std::string::npos);
      EXPECT_TRUE(mode.passes > 0 && mode.bit_depth == 2) << mode.id;
      EXPECT_EQ(effective_print_mode(head, mode, {}).id, mode.id);
    }
  }
  EXPECT_EQ(ids.size(), 22u);
}

TEST(PrintModes, BareNumbersWinOnlyWithoutAnId) {
  const PrintMode nameless{"", "", 720, 1200, 4, 2};
  const PrintMode legacy = effective_print_mode(kI3200, nameless, {1440, 720, 0});
  EXPECT_EQ(std::tuple(legacy.id, legacy.label, legacy.bit_depth),
            std::tuple("legacy_explicit_xy", "1440x720 4PASS", 2u));
  EXPECT_EQ(effective_print_mode(kI3200, nameless, {1440, 720, 9}).passes, 9u);
  EXPECT_EQ(effective_print_mode(kI3200, nameless, {1440, 0, 9}).id, "720x1200_4pass");
  EXPECT_EQ(effective_print_mode(kI3200, {"720x2400_8pass", "", 0, 0, 0, 0}, {1440, 720, 9}).y_dpi, 2400u);
}

TEST(ChannelMap, NormalizedToTheHead) {
  using Map = std::vector<std::uint32_t>;
  const std::tuple<HeadConfig, Map, Map> cases[] = {
      {kI3200, {4, 4, 4, 4, 4, 4, 0, 0, 0}, {4, 4, 4, 4, 4, 4}},
      {kI1600, {}, {3, 0, 1, 2, 4, 5}},
      {kXp600, {3, 0, 1, 2, 5, 5, 5}, {3, 0, 1, 2, 5, 5, 4}},  // lost its white
      {kXp600, {3, 0, 1, 2, 5, 5, 3}, {3, 0, 1, 2, 5, 5, 3}},
      {kI1600, {3, 0, 1, 2, 5, 5}, {3, 0, 1, 2, 5, 5}},
  };
  for (const auto& [head, map, slots] : cases) EXPECT_EQ(normalize_channel_map(head, map), slots);
}

}  // namespace
}  // namespace nvo
