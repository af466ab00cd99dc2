#include <array>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "output/test_drops.h"
#include "support/print_file.h"
#include "support/temp_dir.h"
#include "tools/prt_slots.h"
#include "tools/prt_tool.h"

namespace nvo {
namespace {

using test::run_tool;
using testing::HasSubstr;

TEST(PrtInfo, CountsTheDotsOfEveryLevelAndSlot) {
  for (const std::uint32_t width : {1u, 31u, 32u, 139u}) {
    const test::TempDir dir;
    const std::string path = dir.file("a.prt");
    std::vector<DropMap> maps = test::make_channels(width, 600, 5);
    std::fill(maps[1].data.begin(), maps[1].data.end(), std::uint8_t{0});
    test::write_print_file(path, 2, maps);

    const test::ToolResult result = run_tool({"info", path, "--json"});
    ASSERT_EQ(result.code, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["head"], "xp600");
    EXPECT_EQ(json["print_mode_id"], "xp600_720x720");
    EXPECT_DOUBLE_EQ(json["height_mm"], 600 * 25.4 / 720);
    const std::string inks = "KCMY--W";
    ASSERT_EQ(json["slots"].size(), inks.size());
    const auto drops = test::PrintFile(test::read_all(path)).drops;
    for (std::size_t slot = 0; slot < inks.size(); ++slot) {
      std::array<std::uint64_t, 4> levels{};
      for (const std::uint8_t level : drops[slot]) ++levels[level];
      EXPECT_EQ(json["slots"][slot]["dots_by_level"], levels) << "slot " << slot;
      EXPECT_EQ(json["slots"][slot]["ink"], inks.substr(slot, 1));
      EXPECT_DOUBLE_EQ(json["slots"][slot]["printed_share"],
                       1.0 - static_cast<double>(levels[0]) / (600.0 * width));
    }
  }
}

TEST(PrtInfo, TellsTheHeaderInWords) {
  const test::TempDir dir;
  test::write_print_file(dir.file("a.prt"), 0, test::make_channels(1440, 900, 5), "720x1800_6pass");
  const test::ToolResult result = run_tool({"info", dir.file("a.prt"), "--map", "wcmyk-"});
  EXPECT_EQ(result.code, 0);
  for (const char* part : {"i3200, mode 720x1800_6pass", "720 x 1800 dpi", "1440 x 900", "2.000 x 0.500 in",
                           "50.8 x 12.7 mm", "6 slots of 360 bytes, 2160", "   1  W", "   6  -"})
    EXPECT_THAT(result.out, HasSubstr(part));
}

TEST(PrtSlots, GuessTheHeadFromTheFieldsAndTheNameWhereTheyFitBoth) {
  const std::tuple<PrtHeader, const char*, std::string> cases[] = {
      {{720, 1800, 4, 1, 1, 6, 6, {}}, "a.prn", "i3200"}, {{720, 1800, 4, 1, 1, 6, 4, {}}, "a.prt", "i1600"},
      {{720, 1200, 4, 1, 1, 6, 4, {}}, "a.prt", "i3200"}, {{720, 1200, 4, 1, 1, 6, 4, {}}, "a.PRN", "i1600"},
      {{100, 100, 4, 1, 1, 6, 4, {}}, "a", "i3200"},      {{720, 1800, 4, 1, 1, 7, 6, {}}, "a.prn", "xp600"},
  };
  for (const auto& [header, path, head] : cases)
    EXPECT_EQ(print_head_name(guess_head(header, path)), head) << path << ' ' << header.pass_field;
}

TEST(PrtVerify, NamesWhatIsDamaged) {
  constexpr std::uint32_t kWidth = 13, kHeight = 10, kStride = 4, kCycle = 24;
  using Bytes = std::string;
  const auto set_field = [](Bytes& bytes, std::size_t field, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) bytes[field * 4 + i] = static_cast<char>(value >> (8 * i));
  };
  const std::pair<std::function<void(Bytes&)>, std::vector<const char*>> cases[] = {
      {[](Bytes& b) { b.clear(); }, {"only 0 bytes"}},
      {[](Bytes& b) { b.resize(47); }, {"only 47 bytes"}},
      {[](Bytes& b) { b.pop_back(); }, {"287 bytes, the header promises 288 (48 + 24 x 10 rows)"}},
      {[](Bytes& b) { b += '\0'; }, {"289 bytes"}},
      {[](Bytes& b) { b[0] = 'T'; }, {"magic is 0x00005554"}},
      {[&](Bytes& b) { set_field(b, 8, 1); }, {"bits per dot is 1, not 2"}},
      {[&](Bytes& b) { set_field(b, 7, 0); }, {"channels is 0, not 6 or 7"}},
      {[&](Bytes& b) { set_field(b, 3, 3); }, {"stride is 3, not at least 4"}},
      {[&](Bytes& b) { set_field(b, 5, 0xFFFFFFFF); }, {"stride is 4, not at least 1073741824"}},
      {[&](Bytes& b) { set_field(b, 4, 0); }, {"height is 0, not above 0"}},
      {[&](Bytes& b) { set_field(b, 5, 0); }, {"width is 0, not above 0"}},
      {[&](Bytes& b) { set_field(b, 3, 0xFFFFFFFF); }, {"row cycle is 25769803770, not below 4 GiB"}},
      {[&](Bytes& b) {
         set_field(b, 3, 3u << 20), set_field(b, 4, 1);
         b.resize(48 + (18u << 20));
       },
       {"a row of 18874368 bytes, this program reads at most 16777216"}},
      // Sizes that would need gigabytes are refused by the size of the file.
      {[&](Bytes& b) { set_field(b, 3, 0x20000000); }, {"promises 32212254768"}},
      {[&](Bytes& b) { set_field(b, 4, 0xFFFFFFFF); }, {"288 bytes, the header promises"}},
      {[&](Bytes& b) { set_field(b, 4, 5), set_field(b, 3, 8); },
       {"stride is 8, not 4", "row 4 from the top, slot 1"}},
      {[&](Bytes& b) { set_field(b, 1, 0), set_field(b, 2, 0); }, {"x resolution is 0", "y resolution is 0"}},
      {[&](Bytes& b) { set_field(b, 9, 0); }, {"pass field is 0"}},
      {[&](Bytes& b) { set_field(b, 6, 1), set_field(b, 11, 7); },
       {"reserved field 1 is 1, not 0", "reserved field 3 is 7, not 0"}},
      {[](Bytes& b) { b[48 + 2 * kCycle + kStride + 3] |= 0x20; },
       {"row 7 from the top, slot 2: bits behind the last dot are set"}},
      {[](Bytes& b) { std::fill(b.begin() + 48, b.end(), '\xFF'); }, {"row 9 from the top", "and 55 more"}},
  };
  const test::TempDir dir;
  const std::string path = dir.file("a.prt");
  test::write_print_file(path, 0, test::make_channels(kWidth, kHeight, 5));
  const Bytes good = test::read_all(path);
  EXPECT_EQ(run_tool({"verify", path}).code, 0);
  for (const auto& [damage, reasons] : cases) {
    Bytes bytes = good;
    damage(bytes);
    test::write_all(path, bytes);
    const test::ToolResult result = run_tool({"verify", path});
    EXPECT_EQ(std::pair(result.code, result.out), std::pair(2, std::string())) << reasons[0];
    for (const char* reason : reasons) EXPECT_THAT(result.err, HasSubstr(reason));
    EXPECT_THAT(result.err, HasSubstr("nvo_prt: " + path + ": "));
  }
}

TEST(PrtCommand, TellsWrongUsageFromAFileThatCannotBeRead) {
  const test::TempDir dir;
  const std::string path = dir.file("a.prt"), picture = dir.file("a.png");
  test::write_print_file(path, 1, test::make_channels(40, 40, 5));
  const std::string other = dir.file("other.prn"), pipe = dir.file("pipe"), link = dir.file("link");
  test::write_all(other, test::read_all(path).substr(0, 20));  // damaged, but somebody's print
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/null", link);
  const auto names = dir.names();
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"preview", path, other}, 1, "would replace the print file"},
      {{"preview", path, pipe}, 1, "not a regular file"},
      {{"preview", path, link}, 1, "not a regular file"},
      {{"preview", path, dir.path().string()}, 1, "not a regular file"},
      {{"info", pipe}, 2, "not a regular file"},
      {{"--version"}, 0, ""},
      {{}, 1, "subcommand"},
      {{"verify", path, "--json"}, 1, "--json"},
      {{"info", path, "--map", "KCMY"}, 1, "'KCMY' names 4 slots, the file has 6"},
      {{"info", path, "--map", "KCMYXW"}, 1, "'X' in 'KCMYXW' is no ink"},
      {{"preview", path}, 1, "PICTURE"},
      {{"preview", path, picture, "--channel", "-"}, 1, "not one of the inks"},
      {{"preview", path, picture, "--channel", "W", "--map", "KCMY--"}, 1, "no slot carries the ink W"},
      {{"preview", path, picture, "--film", "#12345G"}, 1, "#12345G is no colour"},
      {{"preview", path, picture, "--dpi", "-3"}, 1, "above 0"},
      {{"preview", path, picture, "--dpi", "1e12"}, 1, "above 100000 pixels"},
      {{"preview", path, picture, "--crop", "0,0,1"}, 1, "crop"},
      {{"preview", path, picture, "--crop", "0.1,0,1,1"}, 1, "width lies outside of the image"},
      {{"preview", path, picture, "--crop", "0,-1,1,1"}, 1, "height lies outside of the image"},
      {{"preview", path, picture, "--crop", "0,0,nan,1"}, 1, "width"},
      {{"preview", path, path}, 1, "would replace the print file"},
      {{"preview", path, dir.file("missing/a.png")}, 2, "cannot write the picture: cannot create '"},
      {{"info", dir.file("b.prt")}, 2, "b.prt: no such file"},
      {{"info", dir.path().string()}, 2, "not a regular file"},
      {{"--help"}, 0, ""},
  };
  for (const auto& [arguments, code, complaint] : cases) {
    const test::ToolResult result = run_tool(arguments);
    EXPECT_EQ(result.code, code) << result.err;
    EXPECT_THAT(result.err, HasSubstr(complaint));
    EXPECT_EQ(dir.names(), names) << complaint;
    EXPECT_TRUE(std::filesystem::is_fifo(pipe) && std::filesystem::is_symlink(link));
  }
}

}  // namespace
}  // namespace nvo
