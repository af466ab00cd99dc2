#include "config/job_settings.h"

#include <functional>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

/// Reads a job file with this text, with an empty per-user folder around it.
class JobSettingsFile : public testing::Test {
 protected:
  JobSettings read(const std::string& text) {
    test::write_all(path, text);
    return load_job_settings(rip, path);
  }

  test::TempDir dir;
  test::ScopedVariable config{"XDG_CONFIG_HOME", dir.path().c_str()};
  std::string path = dir.file("job.json");
  RipSettings rip;
};

TEST_F(JobSettingsFile, ValuesAreCutFloorsHoldAndLaterKeysWin) {
  using J = JobSettings;
  const std::tuple<const char*, float J::*, float> amounts[] = {
      {R"({"white_choke_amount_px_at_300dpi":9})", &J::white_choke_amount_px_at_300dpi, 2.5f},
      {R"({"expansion_amount_px_at_300dpi":1,"white_choke_amount_px_at_300dpi":2})",
       &J::white_choke_amount_px_at_300dpi, 1.0f},
      {R"({"nesting_gap_in":1,"repeated_file_gap_in":2})", &J::repeated_file_gap_in, 2.0f},
      {R"({"nesting_gap_in":-1})", &J::repeated_file_gap_in, 0.0f},
      {R"({"sheet_width_in":0})", &J::sheet_width_in, 0.01f},
      {R"({"max_length_in":-5})", &J::max_length_in, 0.01f},
      {R"({"min_white_pct":50,"max_white_pct":20})", &J::min_white_pct, 20.0f},
  };
  const std::pair<const char*, std::function<bool(const J&)>> cases[] = {
      {R"({"white_choke_adaptive_min_width_dots":2.5})",
       [](auto& j) { return j.white_choke_adaptive_min_width_dots == 3; }},
      {R"({"white_choke_adaptive_min_width_dots":1e300})",
       [](auto& j) { return j.white_choke_adaptive_min_width_dots == 16; }},
      {R"({"use_color_expansion_over_white":false})", [](auto& j) { return !j.white_choke_enabled; }},
      {R"({"white_choke_enabled":0,"sheet_width_in":"9","print_head":3})",
       [](auto& j) {
         return j.white_choke_enabled && j.sheet_width_in == 23.0f && j.print_head == PrintHead::i3200;
       }},
      {R"({"sheet_placement_mode":"align-RIGHT","color_resampling":"Nearest_Neighbour"})",
       [](auto& j) {
         return j.sheet_placement_mode == SheetPlacementMode::align_right &&
                j.color_resampling_mode == ResamplingMode::hard;
       }},
      {R"({"white_choke_algorithm":"baseline"})",
       [](auto& j) { return j.white_choke_algorithm == WhiteChokeSetting::production; }},
      {R"({"white_choke_algorithm":"baseline","white_choke_strategy":"Adaptive White"})",
       [](auto& j) { return j.white_choke_algorithm == WhiteChokeSetting::adaptive; }},
      {R"({"icc":{"enabled":true,"output_profile":"p"}})", [](auto& j) { return j.icc.enabled; }},
      {R"({"icc":{"enabled":true,"intent":9}})", [](auto& j) { return !j.icc.enabled; }},
      {"[1,2]", [](auto& j) { return j.print_mode.id == "720x1800_6pass"; }},
  };
  const test::LogCapture log(LogLevel::info);
  for (const auto& [text, field, amount] : amounts) EXPECT_EQ(read(text).*field, amount) << text;
  for (const auto& [text, holds] : cases) EXPECT_TRUE(holds(read(text))) << text;
  EXPECT_TRUE(log.lines().empty()) << log.lines().front();
}

TEST_F(JobSettingsFile, HeadModeAndSlotsFitEachOther) {
  using Slots = std::vector<std::uint32_t>;
  const Slots of_xp600 = {3, 0, 1, 2, 5, 5, 4};
  const std::tuple<const char*, std::string, Slots> cases[] = {
      {"{}", "720x1800_6pass", {3, 0, 1, 2, 4, 4}},
      {R"({"print_head":"XP-600"})", "xp600_720x720", of_xp600},
      {R"({"print_head":"xp600","print_mode_id":"720x1800_6pass"})", "xp600_720x720", of_xp600},
      {R"({"print_head":"i1600","print_mode_id":"720x1200_4pass"})",
       "i1600_720x1200_observed",
       {3, 0, 1, 2, 4, 5}},
      {R"({"print_head":"xp600","print_mode_id":"xp600_360x2160","output_channel_map":["Key","C","M","Y"]})",
       "xp600_360x2160", of_xp600},
      {R"({"output_channel_map":["w","W","white","none","disabled","y","c","c"]})",
       "720x1800_6pass",
       {4, 4, 4, 5, 5, 2}},
      {R"({"print_head":"xp600","output_channel_map":"KCMY"})", "xp600_720x720", of_xp600},
      {R"({"print_mode_id":"720X1800_6PASS"})", "720x1800_6pass", {3, 0, 1, 2, 4, 4}},
  };
  for (const auto& [text, mode, slots] : cases) {
    const JobSettings job = read(text);
    EXPECT_EQ(job.print_mode.id, mode) << text;
    EXPECT_EQ(job.output_channel_map, slots) << text;
  }
}

TEST_F(JobSettingsFile, UnknownTokensAndLegacyModesAreNamed) {
  using Lines = std::vector<std::string>;
  const auto unknown = [](const std::string& rest) { return Lines{"[WARN ] JobSettings: unknown " + rest}; };
  const std::pair<const char*, Lines> cases[] = {
      {R"({"print_head":"i9"})", unknown("print_head token 'i9'; using i3200")},
      {R"({"white_resampling_mode":"Bilinear!"})",
       unknown("white_resampling_mode token 'Bilinear!'; using hard")},
      {R"({"color_resampling":"x"})", unknown("color_resampling token 'x'; using smooth")},
      {R"({"sheet_placement_mode":""})", unknown("sheet_placement_mode token ''; using AlignCenter")},
      {R"({"white_choke_strategy":"legacy_same_grid_distance_mask"})",
       unknown("white_choke_strategy token 'legacy_same_grid_distance_mask'; using production")},
      {R"({"output_channel_map":["C","Gold"]})", unknown("output_channel_map[1] token 'Gold'; using Off")},
      {R"({"white_generation_mode":"InkBudget","white_ink_limit_enabled":false})",
       {"[WARN ] JobSettings: legacy white_generation_mode 'InkBudget' migrated to SourceCoverage",
        "[WARN ] JobSettings: legacy InkBudget maps to white_ink_limit_enabled."}},
      {R"({"white_generation_mode":"sourcecoverage"})",
       unknown("legacy white_generation_mode 'sourcecoverage' ignored; using SourceCoverage.")},
      {R"({"white_generation_mode":"SourceCoverage"})", {}},
      {"", {"[ERROR] JobSettings: falling back to defaults for '" + path + "': Cannot parse JSON: " + path}},
      {R"({"sheet_width_in":5,"output_channel_map":["C",7]})",
       {"[ERROR] JobSettings: parse failed for '" + path +
        "': [json.exception.type_error.302] type must be string, but is number"}},
  };
  for (const auto& [text, lines] : cases) {
    const test::LogCapture log(LogLevel::info);
    const JobSettings job = read(text);
    EXPECT_EQ(log.lines(), lines) << text;
    EXPECT_EQ(job.white_ink_limit_enabled, std::string(text).find("InkBudget") != std::string::npos);
    EXPECT_EQ(job.sheet_width_in, 23.0f) << "one bad slot gives all defaults";
  }
}

TEST_F(JobSettingsFile, AFaultOfTheColourFileIsToldOnce) {
  std::filesystem::create_directory(dir.file("NVO_RIP"));
  test::write_all(dir.file("NVO_RIP/icc_settings.json"), "{");
  for (const char* text : {"{}", "{", R"({"output_channel_map":[7]})"}) {
    const test::LogCapture log;
    read(text);
    EXPECT_EQ(log.count("IccSettings: "), 1u) << text;
  }
}

TEST_F(JobSettingsFile, InstallationGivesTheDefaults) {
  rip.nesting_gap_in = -3;
  rip.sheet_width_in = 17;
  rip.print_mode_id = "360x3600_6pass";
  const test::LogCapture log;
  const JobSettings job = load_job_settings(rip, dir.file("none.json"));
  EXPECT_EQ(job.repeated_file_gap_in, 0.0f);
  EXPECT_EQ(job.sheet_width_in, 17.0f);
  EXPECT_EQ(job.print_mode.id, "360x3600_6pass");
  EXPECT_EQ(job_settings_path(), dir.file("NVO_RIP/job_settings.json"));
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace nvo
