#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "config/job_settings.h"
#include "config/rip_settings.h"
#include "support/log_capture.h"
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
  ::setenv("XDG_CONFIG_HOME", user.path().c_str(), 1);
  std::filesystem::create_directory(user.file("NVO_RIP"));
  for (const std::string& name : kFiles) test::write_all(user.file("NVO_RIP/" + name), sample(name));
  const test::LogCapture log;
  const RipSettings rip = load_rip_settings();
  const IccSettings icc = load_icc_settings();
  const JobSettings job = load_job_settings(rip);
  ::unsetenv("XDG_CONFIG_HOME");
  EXPECT_THAT(log.lines(), testing::IsEmpty());

  EXPECT_EQ(std::tuple(rip.channels[0].limit, rip.print_mode_id, rip.display_units),
            std::tuple(230.0f, "720x1200_4pass", "mm"));
  EXPECT_EQ(std::tuple(rip.rip_performance.parallel_channels, rip.rip_performance.autotune_inputs.qty),
            std::tuple(TriState::on, 2u));
  EXPECT_EQ(rip.filename_copies.position, CopiesPosition::number_after_marker);
  EXPECT_EQ(std::tuple(icc.intent, icc.output_profile), std::tuple(3, "/srv/icc/film.icc"));
  EXPECT_EQ(job.icc.intent, 0) << "the job's record stands above the file's";
  EXPECT_EQ(std::tuple(job.print_head, job.print_mode.id, job.sheet_placement_mode),
            std::tuple(PrintHead::xp600, "xp600_720x1080", SheetPlacementMode::align_left));
  EXPECT_EQ(job.output_channel_map, (std::vector<std::uint32_t>{3, 0, 1, 2, 5, 4, 4}));
  EXPECT_EQ(std::tuple(job.white_choke_amount_px_at_300dpi, job.white_resampling_mode, job.min_white_pct),
            std::tuple(1.25f, ResamplingMode::hard, 20.0f));
}

void expect_explained(const nlohmann::json& object, const std::string& page) {
  for (const auto& [key, value] : object.items()) {
    EXPECT_NE(page.find("`" + key + "`"), std::string::npos) << key;
    if (value.is_object()) expect_explained(value, page);
  }
}

TEST(SettingsSamples, TheSettingsPageExplainsEveryKey) {
  const std::string page = test::read_all(kProject + "/docs/settings.md");
  for (const std::string& name : kFiles) expect_explained(nlohmann::json::parse(sample(name)), page);
}

}  // namespace
}  // namespace nvo
