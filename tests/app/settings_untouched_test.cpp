#include <filesystem>
#include <map>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

/// Content and time of every settings file in a folder.
std::map<std::string, std::pair<std::string, fs::file_time_type>> settings_files(const fs::path& folder) {
  std::map<std::string, std::pair<std::string, fs::file_time_type>> found;
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().string().ends_with("settings.json"))
      found[entry.path().filename()] = {test::read_all(entry.path()), entry.last_write_time()};
  return found;
}

// The files belong to the shop: not even a missing or a broken one is made anew.
TEST(SettingsFiles, AJobNeverWritesOne) {
  const test::TempDir dir;
  test::write_tiff(dir.file("art.tif"), test::cmykw_tiff(12, 9, {}));
  const fs::path folder = dir.path() / "config/NVO_RIP";
  const std::vector<std::map<std::string, std::string>> cases = {
      {},
      {{"settings.json", R"({"ui_language":"ru"})"},
       {"job_settings.json", R"({"print_head":"i1600","white_generation_mode":"InkBudget"})"},
       {"icc_settings.json", R"({"intent":2})"}},
      {{"settings.json", "{"}, {"job_settings.json", R"({"print_head":"i9"})"}, {"icc_settings.json", "[]"}},
  };
  for (const auto& files : cases) {
    fs::remove_all(folder);
    fs::create_directories(folder);
    for (const auto& [name, text] : files) test::write_all(folder / name, text);
    const auto before = settings_files(folder);
    test::ChildProcess child({NVO_RIP_PROGRAM, dir.file("art.tif")},
                             {{"XDG_CONFIG_HOME", dir.file("config")}});
    EXPECT_EQ(child.wait(), 0) << child.out();
    EXPECT_EQ(settings_files(folder), before);
  }
}

}  // namespace
}  // namespace nvo
