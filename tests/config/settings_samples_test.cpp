#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/job_settings.h"
#include "config/rip_settings.h"
#include "config/settings_keys.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

const std::string kProject = NVO_PROJECT_DIR;
const std::vector<std::string> kFiles = {"settings.json", "job_settings.json", "icc_settings.json"};

std::string sample(const std::string& name) {
  return test::read_all(kProject + "/examples/settings/" + name);
}

TEST(SettingsSamples, AreReadWithoutAWordAndTheirValuesArrive) {
  const test::TempDir user;
  const test::ScopedVariable config("XDG_CONFIG_HOME", user.path().c_str());
  std::filesystem::create_directory(user.file("NVO_RIP"));
  for (const std::string& name : kFiles) test::write_all(user.file("NVO_RIP/" + name), sample(name));
  const test::LogCapture log;
  const RipSettings rip = load_rip_settings();
  const IccSettings icc = load_icc_settings();
  const JobSettings job = load_job_settings(rip);
  EXPECT_THAT(log.lines(), testing::IsEmpty());

  const RipPerformance& performance = rip.rip_performance;
  EXPECT_EQ(
      std::tuple(rip.print_mode_id, performance.parallel_channels, performance.channel_threads,
                 performance.row_threads, performance.autotune_inputs.qty, rip.filename_copies.position),
      std::tuple("720x1200_4pass", TriState::on, 4u, 2u, 2u, CopiesPosition::number_after_marker));
  EXPECT_EQ(std::tuple(icc.intent, icc.output_profile, job.icc.intent), std::tuple(3, "/srv/icc/film.icc", 0))
      << "the job's record stands above the file's";
  EXPECT_EQ(std::tuple(job.sheet_margin_left_in, job.sheet_margin_right_in, job.sheet_margin_top_in,
                       job.sheet_margin_bottom_in, job.white_choke_amount_px_at_300dpi),
            std::tuple(0.1f, 0.2f, 0.3f, 0.4f, 1.25f));
}

TEST(SettingsSamples, TheSettingsPageExplainsTheKeysOfTheReadersAndNoOthers) {
  const std::string page = test::read_all(kProject + "/docs/settings.md");
  const std::set<std::string> heads = {"i3200", "i1600", "xp600"};  // a table of their own
  std::set<std::string> known, explained;
  for (const SettingsFile file : {SettingsFile::rip, SettingsFile::job, SettingsFile::icc})
    for (const std::string& key : settings_keys(file)) known.insert(key.substr(key.rfind('.') + 1));
  for (const std::string& key : known) EXPECT_NE(page.find("`" + key + "`"), std::string::npos) << key;

  std::istringstream lines(page.substr(0, page.find("## Environment")));
  lines.seekg(static_cast<std::streamoff>(page.find("## settings.json")));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("| ")) continue;
    std::istringstream cell(line.substr(2, line.find(" |") - 2));
    for (std::string text; std::getline(cell, text, '`') && std::getline(cell, text, '`');)
      if (!heads.contains(text)) explained.insert(text);
  }
  EXPECT_GT(explained.size(), 60u);
  for (const std::string& key : explained) EXPECT_TRUE(known.contains(key)) << key;
}

}  // namespace
}  // namespace nvo
