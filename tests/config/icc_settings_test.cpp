#include "config/icc_settings.h"

#include <cstdlib>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/settings_paths.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

auto fields(const IccSettings& s) {
  return std::tuple(s.enabled, s.input_rgb_profile, s.input_cmyk_profile, s.output_profile, s.intent,
                    s.use_bpc);
}

TEST(IccSettings, AFileIsTakenWholeOrGivesDefaultsAndOneLine) {
  const test::TempDir folder;
  test::LogCapture log;
  const std::string path = folder.file("icc.json"), longest(32768, 'p');
  const auto read = [&](const std::string& content) {
    test::write_all(path, content);
    return fields(load_icc_settings(path));
  };
  EXPECT_EQ(fields(load_icc_settings(path)), fields({}));
  EXPECT_EQ(read(R"({"enabled": true, "input_rgb_profile": "r", "intent": 3, "input_cmyk_profile": "ö",
                     "use_bpc": false})"),
            fields({true, "r", "ö", "", 3, false}));
  std::string largest = R"({"enabled": true, "output_profile": ")" + longest + "\"}";
  largest.resize(1048576, ' ');
  EXPECT_EQ(read(largest), fields({true, "", "", longest, 1, true}));
  EXPECT_THAT(log.take(), IsEmpty());

  const std::string unreadable = "falling back to defaults for '" + path + "': ";
  EXPECT_EQ(read(largest + " "), fields({}));
  EXPECT_EQ(read(""), fields({}));
  EXPECT_THAT(log.take(), ElementsAre("[ERROR] IccSettings: " + unreadable +
                                          "File exceeds size cap (1048577 bytes > 1048576): " + path,
                                      "[ERROR] IccSettings: " + unreadable + "Cannot parse JSON: " + path));
  // The first fault in the order of the keys is told.
  const std::pair<std::string, std::string> cases[] = {
      {"[]", "top-level JSON must be an object."},
      {R"({"output_profile": ")" + longest + "p\"}", "output_profile is too large."},
      {R"({"input_cmyk_profile": 1})", "input_cmyk_profile must be a string."},
      {R"({"intent": 1.0})", "intent must be an integer."},
      {R"({"intent": 4})", "intent is outside the supported range."},
      {R"({"intent": -1})", "intent is outside the supported range."},
      {R"({"intent": 4294967297})", "intent is outside the supported range."},
      {R"({"use_bpc": 0, "intent": 9, "output_profile": 1, "enabled": ""})", "enabled must be a boolean."},
      {R"({"enabled": true, "use_bpc": null, "intent": 2})", "use_bpc must be a boolean."},
  };
  for (const auto& [content, text] : cases) {
    EXPECT_EQ(read(content), fields({})) << text;
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] IccSettings: invalid config for '" + path + "': " + text +
                                        "; falling back to defaults."));
  }
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
