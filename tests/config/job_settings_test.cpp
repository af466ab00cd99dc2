#include "config/job_settings.h"

#include <tuple>

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
  const auto amounts = [](const JobSettings& j) {
    return std::tuple(j.white_choke_amount_px_at_300dpi, j.white_choke_adaptive_min_width_dots,
                      j.repeated_file_gap_in, j.sheet_width_in, j.max_length_in, j.min_white_pct);
  };
  const auto choices = [](const JobSettings& j) {
    return std::tuple(j.print_head, j.sheet_placement_mode, j.color_resampling_mode, j.white_choke_algorithm,
                      j.white_choke_enabled, j.icc.enabled);
  };
  const test::LogCapture quiet;
  const JobSettings cut = read(
      R"({"white_choke_amount_px_at_300dpi":9,"white_choke_adaptive_min_width_dots":2.5,"nesting_gap_in":-1,
          "sheet_width_in":0,"max_length_in":-5,"min_white_pct":50,"max_white_pct":20,
          "sheet_placement_mode":"align-RIGHT","color_resampling":"Nearest_Neighbour",
          "white_choke_algorithm":"baseline","icc":{"enabled":true,"output_profile":"p"}})");
  EXPECT_EQ(amounts(cut), std::tuple(2.5f, 3, 0.0f, 0.01f, 0.01f, 20.0f));
  EXPECT_EQ(choices(cut), std::tuple(PrintHead::i3200, SheetPlacementMode::align_right, ResamplingMode::hard,
                                     WhiteChokeSetting::production, true, true));

  const JobSettings later = read(
      R"({"expansion_amount_px_at_300dpi":1,"white_choke_amount_px_at_300dpi":2,"repeated_file_gap_in":2,
          "nesting_gap_in":1,"white_choke_adaptive_min_width_dots":1e300,"white_choke_enabled":true,
          "use_color_expansion_over_white":false,"white_choke_strategy":"Adaptive White",
          "white_choke_algorithm":"baseline","icc":{"enabled":true,"intent":9}})");
  EXPECT_EQ(amounts(later), std::tuple(1.0f, 16, 2.0f, 23.0f, 120.0f, 10.0f));
  EXPECT_EQ(choices(later), std::tuple(PrintHead::i3200, SheetPlacementMode::align_center,
                                       ResamplingMode::smooth, WhiteChokeSetting::adaptive, false, false));

  const JobSettings defaults;
  for (const char* wrong : {R"({"white_choke_enabled":0,"sheet_width_in":"9","print_head":3})", "[1,2]"}) {
    EXPECT_EQ(amounts(read(wrong)), amounts(defaults)) << wrong;
    EXPECT_EQ(choices(read(wrong)), choices(defaults)) << wrong;
  }
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
      // An old map that lost its white gets it back, others stay as they are.
      {R"({"print_head":"xp600","output_channel_map":["k","c","m","y","off","off","off"]})", "xp600_720x720",
       of_xp600},
      {R"({"print_head":"xp600","output_channel_map":["k","c","m","y","off","off","k"]})",
       "xp600_720x720",
       {3, 0, 1, 2, 5, 5, 3}},
      {R"({"output_channel_map":["k","c","m","y","off","off"]})", "720x1800_6pass", {3, 0, 1, 2, 5, 5}},
      {R"({"print_mode_id":"720X1800_6PASS"})", "720x1800_6pass", {3, 0, 1, 2, 4, 4}},
  };
  for (const auto& [text, mode, slots] : cases) {
    const JobSettings job = read(text);
    EXPECT_EQ(job.print_mode.id, mode) << text;
    EXPECT_EQ(job.output_channel_map, slots) << text;
  }
}

TEST_F(JobSettingsFile, WhatIsNotTakenAsItStandsIsNamed) {
  const std::string unknown = "[WARN ] JobSettings: unknown ";
  const std::string job = "[WARN ] JobSettings: ", unknown_key = job + "unknown key '";
  const std::string in_file = "' in '" + path + "' is ignored";
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {R"({"print_head":"i9","white_resampling_mode":"Bilinear!","color_resampling":"x",
           "sheet_placement_mode":"","white_choke_strategy":"legacy_same_grid_distance_mask",
           "output_channel_map":["K","Gold","M","Y","C","W"],"white_generation_mode":"sourcecoverage"})",
       {unknown + "print_head token 'i9'; using i3200",
        unknown + "output_channel_map[1] token 'Gold'; using Off",
        unknown + "sheet_placement_mode token ''; using AlignCenter",
        unknown + "legacy white_generation_mode 'sourcecoverage' ignored; using SourceCoverage.",
        unknown + "white_choke_strategy token 'legacy_same_grid_distance_mask'; using production",
        unknown + "color_resampling token 'x'; using smooth",
        unknown + "white_resampling_mode token 'Bilinear!'; using hard",
        job + "output_channel_map K Off M Y C W switches slot 2 off, which prints C by default"}},
      {R"({"white_generation_mode":"InkBudget","white_ink_limit_enabled":false})",
       {"[WARN ] JobSettings: legacy white_generation_mode 'InkBudget' migrated to SourceCoverage",
        "[WARN ] JobSettings: legacy InkBudget maps to white_ink_limit_enabled."}},
      {R"({"white_choke_amount_px_at_300dpi":9,"nesting_gap_in":-1,"min_white_pct":50,"max_white_pct":20,
           "white_choke_adaptive_min_width_dots":1e300,"white_choke_adaptive_lightness_threshold":100})",
       {job + "nesting_gap_in -1 is out of range; using 0",
        job + "white_choke_amount_px_at_300dpi 9 is out of range; using 2.5",
        job + "white_choke_adaptive_min_width_dots 1e+300 is out of range; using 16",
        job + "min_white_pct 50 is above max_white_pct; using 20"}},
      {R"({"white_choke_enabled":0,"sheet_width_in":"9","print_head":3,"icc":[],"output_channel_map":"K",
           "device_board":"other"})",
       {job + "unknown device_board 'other' is ignored; using hoson",
        job + "print_head must be a text; this value (number) is skipped",
        job + "output_channel_map must be a list of texts; this value (string) is skipped",
        job + "sheet_width_in must be a number; this value (string) is skipped",
        job + "icc must be an object; this value (array) is skipped",
        job + "white_choke_enabled must be true or false; this value (number) is skipped"}},
      {std::string(250000, '[') + std::string(250000, ']'),
       {job + "'" + path + "' holds no JSON object; the defaults hold"}},
      {R"({"print_head":"i1600","print_mode_id":"720x1200_4pass"})", {}},
      {R"({"print_head":"xp600","print_mode_id":"720x1800_6pass"})",
       {job + "print_mode_id '720x1800_6pass' is a mode of the i3200, and print_head xp600 has none of its "
              "resolution; using 'xp600_720x720' (720x720 dpi)"}},
      {R"({"print_mode_id":"xp600_720x720"})",
       {job + "unknown print_mode_id 'xp600_720x720' for print_head i3200; using '720x1800_6pass' (720x1800 "
              "dpi)"}},
      {R"({"output_channel_map":["k","c","y","y","y","off"]})",
       {
           job + "output_channel_map K C Y Y Y Off has no slot for M W: not printed",
       }},
      {R"({"output_channel_map":["k","c","m","y","w","off","w"]})",
       {job + "output_channel_map has 7 entries for the 6 slots of print_head i3200; the last ones are not "
              "used",
        job + "output_channel_map K C M Y W Off switches slot 6 off, which prints W by default"}},
      {R"({"icc":{"enabled":true,"intent":9}})",
       {job + "icc is skipped, icc_settings.json holds: intent is outside the supported range."}},
      {R"({"icc":{"enabled":true,"input_cmyk_profile":"p"}})",
       {job + "icc: profiles are enabled, but output_profile is empty; colour is printed without any"}},
      {R"({"icc":{"output_profile":"p"}})",
       {job + "icc: profiles are named, but not enabled; colour is printed without any"}},
      {R"({"white_chok_enabled":true,"White-Resampling":"hard","icc":{"intnet":1,"x":{}},"intent":1,
           "channels":{"C":{"gama":2}},"custom_output_folder_enable":true,"rip_performance.mode":"manual",
           "zzz":)" +
           std::string(250000, '[') + std::string(250000, ']') + ",\"" + std::string(99, 'z') + "\":1}",
       {unknown_key + "White-Resampling" + in_file + "; did you mean 'white_resampling'?",
        unknown_key + "channels" + in_file + "; it belongs to settings.json",
        unknown_key + "custom_output_folder_enable" + in_file +
            "; did you mean 'custom_output_folder_enabled' of settings.json?",
        unknown_key + "icc.intnet" + in_file + "; did you mean 'icc.intent'?",
        unknown_key + "icc.x" + in_file, unknown_key + "intent" + in_file + "; did you mean 'icc.intent'?",
        unknown_key + "rip_performance.mode" + in_file,
        unknown_key + "white_chok_enabled" + in_file + "; did you mean 'white_choke_enabled'?",
        unknown_key + "zzz" + in_file, unknown_key + std::string(80, 'z') + "..." + in_file}},
      {R"({"white_generation_mode":"SourceCoverage"})", {}},
      {"", {"[ERROR] JobSettings: falling back to defaults for '" + path + "': Cannot parse JSON: " + path}},
      {R"({"sheet_width_in":5,"output_channel_map":["C",7]})",
       {"[ERROR] JobSettings: parse failed for '" + path +
        "': [json.exception.type_error.302] type must be string, but is number"}},
  };
  for (const auto& [text, lines] : cases) {
    const test::LogCapture log(LogLevel::info);
    const JobSettings settings = read(text);
    EXPECT_EQ(log.lines(), lines);
    EXPECT_EQ(settings.white_ink_limit_enabled, text.find("InkBudget") != std::string::npos);
    EXPECT_EQ(settings.sheet_width_in, 23.0f) << "one bad slot gives all defaults";
  }
}

TEST_F(JobSettingsFile, InstallationGivesTheDefaults) {
  rip.nesting_gap_in = -3;
  rip.sheet_width_in = 17;
  rip.print_mode_id = "360x3600_6pass";
  const test::LogCapture log;
  const JobSettings job = load_job_settings(rip, dir.file("none.json"));
  EXPECT_EQ(std::tuple(job.repeated_file_gap_in, job.sheet_width_in, job.print_mode.id),
            std::tuple(0.0f, 17.0f, "360x3600_6pass"));
  EXPECT_EQ(job_settings_path(), dir.file("NVO_RIP/job_settings.json"));
  EXPECT_TRUE(log.lines().empty());
  const auto channels = rip.channels;
  rip.channels[4].limit = 0;
  load_job_settings(rip, dir.file("none.json"));
  EXPECT_EQ(log.lines().size(), log.count("[WARN ] RipSettings: the ink curve of W gives no ink at all"));
  EXPECT_EQ(log.lines().size(), 1u);
  rip.channels = channels;

  test::write_all(dir.file("NVO_RIP/icc_settings.json"), R"({"intent":2})");
  EXPECT_EQ(read("{}").icc.intent, 2);
  EXPECT_EQ(read(R"({"icc":{}})").icc.intent, 1) << "the job's record has nothing of the file's";
  test::write_all(dir.file("NVO_RIP/icc_settings.json"), "{");
  read(R"({"output_channel_map":[7]})");
  EXPECT_EQ(log.count("IccSettings: "), 1u) << "a fault of the colour file is told once";

  const std::string settings = "[WARN ] RipSettings: ", job_mode = R"({"print_mode_id":"360x1200_2pass"})";
  const std::string used_xp600 = "; using 'xp600_720x720' (720x720 dpi)";
  test::write_all(dir.file("NVO_RIP/icc_settings.json"), R"({"output_profile":"p"})");
  const std::tuple<std::string, std::string, std::vector<std::string>> modes[] = {
      {"xp600_720x720", job_mode, {}},
      {"xp600_720x720",
       "{}",
       {settings + "unknown print_mode_id 'xp600_720x720', settings.json takes modes of the i3200; using "
                   "'720x1800_6pass' (720x1800 dpi)"}},
      {"720x2400_8pass",
       R"({"print_head":"xp600"})",
       {settings +
        "print_mode_id '720x2400_8pass' is a mode of the i3200, and print_head xp600 has none of "
        "its resolution" +
        used_xp600}},
      {RipSettings().print_mode_id, R"({"print_head":"xp600"})", {}},
  };
  for (auto [id, text, lines] : modes) {
    rip.print_mode_id = id;
    lines.push_back(
        "[WARN ] IccSettings: profiles are named, but not enabled; colour is printed without any");
    const test::LogCapture said;
    read(text);
    EXPECT_EQ(said.lines(), lines) << id;
  }
}

}  // namespace
}  // namespace nvo
