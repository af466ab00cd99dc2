#include "config/icc_settings.h"

#include <cstdlib>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "config/settings_paths.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;

auto fields(const IccSettings& s) {
  return std::tuple(s.enabled, s.input_rgb_profile, s.input_cmyk_profile, s.output_profile, s.intent,
                    s.use_bpc);
}

TEST(IccSettings, EveryKeyIsTakenOrRefused) {
  const std::string longest(32768, 'p');
  IccSettings settings;
  std::string error;
  EXPECT_TRUE(parse_icc_settings(json::parse(R"({"enabled": true, "input_rgb_profile": "r", "intent": 3,
                                                "input_cmyk_profile": "ö", "use_bpc": false})"),
                                 settings, &error));
  EXPECT_EQ(fields(settings), fields({true, "r", "ö", "", 3, false}));
  EXPECT_TRUE(parse_icc_settings({{"output_profile", longest}}, settings, &error));
  IccSettings expected;
  expected.output_profile = longest;
  EXPECT_EQ(fields(settings), fields(expected)) << "nothing stays of the older values";

  const std::pair<json, std::string> cases[] = {
      {{{"output_profile", longest + "p"}}, "output_profile is too large."},
      {json::array(), "top-level JSON must be an object."},
      {{{"use_bpc", nullptr}}, "use_bpc must be a boolean."},
      {{{"input_cmyk_profile", 1}}, "input_cmyk_profile must be a string."},
      {{{"intent", 1.0}}, "intent must be an integer."},
      {{{"intent", 4}}, "intent is outside the supported range."},
      {{{"intent", -1}}, "intent is outside the supported range."},
      {{{"intent", 4294967297}}, "intent is outside the supported range."},
      {{{"use_bpc", 0}, {"intent", 9}, {"output_profile", 1}, {"enabled", ""}}, "enabled must be a boolean."},
      {{{"enabled", true}, {"use_bpc", 0}, {"intent", 9}}, "intent is outside the supported range."},
  };
  for (const auto& [document, text] : cases) {
    EXPECT_FALSE(parse_icc_settings(document, settings, &error)) << text;
    EXPECT_EQ(error, text);
    EXPECT_EQ(fields(settings), fields(expected)) << text;
  }
}

TEST(IccSettings, AFaultyFileGivesDefaultsAndOneLine) {
  const test::TempDir folder;
  test::LogCapture log;
  const std::string path = folder.file("icc.json");
  const auto enabled = [&](const std::string& content) {
    test::write_all(path, content);
    return load_icc_settings(path).enabled;
  };
  const std::string fill(1048576 - 17, ' ');
  EXPECT_FALSE(load_icc_settings(path).enabled);
  EXPECT_TRUE(enabled(R"({"enabled": true})" + fill));
  EXPECT_THAT(log.take(), IsEmpty());

  EXPECT_FALSE(enabled(R"({"enabled": true} )" + fill));
  EXPECT_FALSE(enabled(""));
  EXPECT_FALSE(enabled(R"({"enabled": true, "use_bpc": 1})"));
  const std::string start = "[ERROR] IccSettings: falling back to defaults for '" + path + "': ";
  EXPECT_THAT(log.take(), ElementsAre(start + "File exceeds size cap (1048577 bytes > 1048576): " + path,
                                      start + "Cannot parse JSON: " + path,
                                      "[ERROR] IccSettings: invalid config for '" + path +
                                          "': use_bpc must be a boolean.; falling back to defaults."));
}

TEST(SettingsPaths, TheFolderIsMadeAndTheFilesLieInIt) {
  const test::TempDir folder;
  test::LogCapture log;
  const auto use = [](const std::string& config) { ::setenv("XDG_CONFIG_HOME", config.c_str(), 1); };
  use(folder.file("a/b"));
  EXPECT_EQ(settings_path(), folder.file("a/b/NVO_RIP/settings.json"));
  test::write_all(folder.file("a/b/NVO_RIP/icc_settings.json"), R"({"intent": 2})");
  EXPECT_EQ(load_icc_settings().intent, 2);
  use(folder.file("settings.json.d"));  // the first occurrence of the name counts, wherever it is
  EXPECT_EQ(default_icc_settings_path(), folder.file("icc_settings.json.d/NVO_RIP/settings.json"));
  EXPECT_THAT(log.take(), IsEmpty());

  use(folder.file("\xff"));
  EXPECT_EQ(default_icc_settings_path(), "nvo_rip_icc_settings.json");
  test::write_all(folder.file("file"), "");
  use(folder.file("file"));
  EXPECT_EQ(settings_path(), folder.file("file/NVO_RIP/settings.json"));
  ::unsetenv("XDG_CONFIG_HOME");
  ::unsetenv("HOME");
  std::filesystem::current_path(folder.path());
  EXPECT_EQ(settings_path(), "./NVO_RIP/settings.json");
  std::filesystem::current_path("/");
  EXPECT_THAT(log.take(),
              ElementsAre("[ERROR] RipSettings: cannot convert settings path to UTF-8; using local fallback.",
                          "[ERROR] RipSettings: cannot create settings directory '" +
                              folder.file("file/NVO_RIP") + "' (Win32 error 20).",
                          "[ERROR] RipSettings: cannot resolve AppData (SHGetFolderPathW HRESULT 0x2); using "
                          "fallback settings directory './NVO_RIP'."));
}

}  // namespace
}  // namespace nvo
