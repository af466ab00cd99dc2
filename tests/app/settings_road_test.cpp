// Every key of the settings files and every environment variable through the real program: what a key means,
// said once more in plain values, gives the same drops, and drops other than without the key.

#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/plain_road.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/print_file.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

using nlohmann::json;
using test::Knobs;
using Environment = std::map<std::string, std::string>;

const std::string kCmykProfile = "/usr/share/color/icc/ghostscript/default_cmyk.icc";
const std::string kOtherCmykProfile = "/usr/share/color/icc/ghostscript/ps_cmyk.icc";
const std::string kRgbProfile = "/usr/share/color/icc/colord/AdobeRGB1998.icc";

enum Art { rgb, cmyk, own_white };
constexpr const char* kArtFiles[] = {"rgb.tif", "cmyk.tif", "own_white.tif"};

/// Strong and pale patches, lines of 1 to 4 pixels, a soft edge and bare film, with transparency or a white
/// channel. All but the inks are smaller than they are printed, so that resampling has something to do.
test::TiffFile artwork(Art art) {
  const std::uint16_t colours = art == rgb ? 3 : 4;
  test::TiffFile tiff =
      test::cmykw_tiff(46, 40, [=](std::uint32_t x, std::uint32_t y, std::uint8_t* samples) {
        const bool line = y >= 30 && (x % 9 < x / 9);
        const bool patch = y < 26 && x % 23 < 17 && y % 13 < 10;
        const auto shade = static_cast<std::uint8_t>(y < 13 ? 20 + x * 5 : 255 - x * 4 - y * 2);
        for (std::uint32_t i = 0; i < colours; ++i) {
          const auto tint = static_cast<std::uint8_t>(shade * (i + 1) / 4 + (x > 23 ? 90 >> i : 5));
          samples[i] = line || patch ? tint : static_cast<std::uint8_t>(art == rgb ? 255 : 0);
        }
        const bool soft = patch && x % 23 > 14;
        samples[colours] = art == own_white ? (line || (patch && x % 5 != 0) ? 0 : 255)
                                            : (soft            ? 130
                                               : line || patch ? 255
                                                               : 0);
      });
  tiff.samples = static_cast<std::uint16_t>(colours + 1);
  if (art == rgb) tiff.photometric = PHOTOMETRIC_RGB;
  if (art != own_white) tiff.extra_samples = {EXTRASAMPLE_UNASSALPHA};
  if (art != cmyk) tiff.x_resolution = tiff.y_resolution = 200;
  return tiff;
}

struct Row {
  json settings;  ///< the file's content
  Art art;
  std::function<void(Knobs&)> means;  ///< empty for a key without effect on a print
};

class SettingsRoad : public testing::Test {
 protected:
  SettingsRoad() {
    for (const Art art : {rgb, cmyk, own_white}) test::write_tiff(dir_.file(kArtFiles[art]), artwork(art));
    std::filesystem::create_directories(dir_.path() / "config/NVO_RIP");
  }

  /// The bytes of a print; the log of the program goes into `log_`.
  std::string print(Art art, const std::map<std::string, json>& files, Environment environment = {}) {
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path() / "config/NVO_RIP"))
      if (entry.path().extension() == ".json") std::filesystem::remove(entry.path());
    for (const auto& [name, content] : files)
      test::write_all(dir_.file("config/NVO_RIP/" + name), content.dump());
    environment.emplace("XDG_CONFIG_HOME", dir_.file("config"));
    for (const char* name : {"art.prt", "art.prn"}) std::filesystem::remove(dir_.path() / name);
    const std::string input = dir_.file("art.tif");
    std::filesystem::copy_file(dir_.path() / kArtFiles[art], input,
                               std::filesystem::copy_options::overwrite_existing);
    const test::Outcome outcome = test::run_to_end({NVO_RIP_PROGRAM, input}, environment);
    log_ = outcome.out;
    EXPECT_EQ(outcome.code, 0) << outcome.out << outcome.err;
    const std::string prt = test::read_all(dir_.file("art.prt"));
    return prt.empty() ? test::read_all(dir_.file("art.prn")) : prt;
  }

  void expect_rows(const std::string& file, const std::vector<Row>& rows, const json& base = json::object()) {
    std::map<Art, std::string> usual;
    for (const Art art : {rgb, cmyk, own_white}) usual[art] = print(art, {{file, base}});
    for (const Row& row : rows) {
      SCOPED_TRACE(file + " " + row.settings.dump().substr(0, 120));
      json content = base;
      content.merge_patch(row.settings);
      const std::string bytes = print(row.art, {{file, content}});
      EXPECT_EQ(log_.find("[ERROR]"), std::string::npos) << log_;
      EXPECT_EQ(bytes != usual[row.art], bool(row.means));
      if (!row.means) continue;
      Knobs knobs;
      row.means(knobs);
      const test::PrintFile printed(bytes);
      const test::PlainRoad plain(dir_.file(kArtFiles[row.art]), knobs);
      EXPECT_EQ(std::pair(printed.x_dpi, printed.y_dpi), std::pair(knobs.x_dpi, knobs.y_dpi));
      EXPECT_TRUE(printed.drops == plain.slots());
    }
  }

  test::LogCapture quiet_;
  test::TempDir dir_;
  std::string log_;
};

TEST_F(SettingsRoad, DefaultsAreThoseOfThePlainRoad) {
  for (const Art art : {rgb, cmyk, own_white})
    EXPECT_TRUE(test::PrintFile(print(art, {})).drops ==
                test::PlainRoad(dir_.file(kArtFiles[art]), Knobs()).slots())
        << kArtFiles[art];
}

TEST_F(SettingsRoad, EveryKeyOfAJobReachesTheDrops) {
  const auto mode = [](std::uint32_t head, std::uint32_t x, std::uint32_t y,
                       std::vector<std::uint32_t> slots) {
    return [=](Knobs& k) { k.head.print_head = head, k.x_dpi = x, k.y_dpi = y, k.slots = slots; };
  };
  std::vector<Row> rows = {
      {{{"print_head", "xp600"}}, cmyk, mode(2, 720, 720, {3, 0, 1, 2, 5, 5, 4})},
      {{{"print_head", "i1600"}}, cmyk, mode(1, 720, 1800, {3, 0, 1, 2, 4, 5})},
      {{{"print_mode_id", "360x1200_2pass"}}, cmyk, mode(0, 360, 1200, {3, 0, 1, 2, 4, 4})},
      {{{"output_channel_map", {"w", "off", "C", "magenta", "y"}}},
       cmyk,
       mode(0, 720, 1800, {4, 5, 0, 1, 2, 4})},
      {{{"white_generation_mode", "InkBudget"}}, cmyk, [](Knobs& k) { k.limit = true; }},
      {{{"white_ink_limit_enabled", true}}, cmyk, [](Knobs& k) { k.limit = true; }},
      {{{"white_ink_limit_enabled", true}, {"total_ink_budget_pct", 180}},
       cmyk,
       [](Knobs& k) { k.limit = true, k.budget = 180; }},
      {{{"white_ink_limit_enabled", true}, {"max_white_pct", 250}},
       cmyk,
       [](Knobs& k) { k.limit = true, k.max_white = 250; }},
      {{{"white_ink_limit_enabled", true}, {"total_ink_budget_pct", 100}, {"min_white_pct", 90}},
       cmyk,
       [](Knobs& k) { k.limit = true, k.budget = 100, k.min_white = 90; }},
  };
  const std::pair<std::vector<const char*>, std::vector<std::pair<json, std::function<void(Knobs&)>>>>
      both_names[] = {
          {{"white_choke_enabled", "use_color_expansion_over_white"},
           {{false, [](Knobs& k) { k.choke = false; }}}},
          {{"white_choke_amount_px_at_300dpi", "expansion_amount_px_at_300dpi"},
           {{0.5, [](Knobs& k) { k.amount = 0.5f; }},
            {9, [](Knobs& k) { k.amount = 2.5f; }},
            {0, [](Knobs& k) { k.choke = false; }}}},
          {{"white_choke_algorithm", "white_choke_strategy"},
           {{"production", [](Knobs& k) { k.adaptive = false; }}}},
          {{"white_choke_adaptive_min_width_dots", "adaptive_white_choke_min_width_dots"},
           {{9, [](Knobs& k) { k.min_width = 9; }}}},
          {{"white_choke_adaptive_protect_light_enabled", "adaptive_white_choke_protect_light_enabled"},
           {{false, [](Knobs& k) { k.protect_light = false; }}}},
          {{"white_choke_adaptive_lightness_threshold", "adaptive_white_choke_lightness_threshold"},
           {{50, [](Knobs& k) { k.lightness = 50; }}}},
          {{"color_resampling_mode", "color_resampling"}, {{"hard", [](Knobs& k) { k.color_hard = true; }}}},
      };
  for (const auto& [names, values] : both_names)
    for (const char* name : names)
      for (const auto& [value, means] : values) rows.push_back({{{name, value}}, cmyk, means});
  for (const char* name : {"color_resampling_mode", "color_resampling"})  // of an image that is enlarged
    rows.push_back({{{name, "hard"}}, rgb, [](Knobs& k) { k.color_hard = true; }});
  for (const char* name : {"white_resampling_mode", "white_resampling"})
    rows.push_back({{{name, "hard"}}, own_white, [](Knobs& k) { k.white_hard = true; }});
  rows.push_back({{{"color_resampling_linear_light", false}}, rgb, [](Knobs& k) { k.linear_light = false; }});
  rows.push_back({{{"icc", {{"enabled", true}, {"output_profile", kCmykProfile}}}}, rgb, [](Knobs& k) {
                    k.output_profile = kCmykProfile;
                  }});
  for (const char* name :
       {"nesting_gap_in", "repeated_file_gap_in", "sheet_width_in", "max_length_in", "sheet_margin_left_in",
        "sheet_margin_right_in", "sheet_margin_top_in", "sheet_margin_bottom_in"})
    rows.push_back({{{name, 2}}, cmyk, {}});
  rows.push_back({{{"sheet_placement_mode", "left"}}, cmyk, {}});
  rows.push_back({{{"device_board", "hoson"}}, cmyk, {}});
  expect_rows("job_settings.json", rows);
}

TEST_F(SettingsRoad, EveryKeyOfTheInstallationReachesTheDrops) {
  std::vector<Row> rows = {{{{"print_mode_id", "720x1200_4pass"}}, cmyk, [](Knobs& k) { k.y_dpi = 1200; }}};
  constexpr const char* kLetters[] = {"C", "M", "Y", "K", "W"};
  std::vector<float> lut(256);
  for (std::size_t i = 0; i < lut.size(); ++i) lut[i] = static_cast<float>(i * i / 300);
  for (std::size_t ink = 0; ink < kChannelCount; ++ink) {
    const auto channel = [&](const char* key, const json& value) {
      return json{{"channels", {{kLetters[ink], {{key, value}}}}}};
    };
    rows.push_back({channel("limit", 100), cmyk, [=](Knobs& k) { k.curves[ink].limit = 100; }});
    rows.push_back({channel("gamma", 2.5), cmyk, [=](Knobs& k) { k.curves[ink].gamma = 2.5f; }});
    rows.push_back({channel("lut", lut), cmyk, [=](Knobs& k) { k.curves[ink].lut = lut; }});
  }
  for (const json& carried :
       {json{{"last_tiff_path", "a"}}, json{{"nesting_gap_in", 3}}, json{{"sheet_width_in", 3}},
        json{{"max_length_in", 3}}, json{{"width_policy", "a"}}, json{{"ui_language", "ru"}},
        json{{"display_units", "mm"}}, json{{"last_seen_release_notes_key", "a"}},
        json{{"filename_copies", {{"enabled", true}}}},
        json{{"rip_performance", {{"mode", "manual"}, {"parallel_channels", "on"}, {"channel_threads", 3}}}},
        json{{"rip_performance", {{"mode", "manual"}, {"parallel_rows", "on"}, {"row_threads", 3}}}}})
    rows.push_back({carried, cmyk, {}});
  expect_rows("settings.json", rows);

  const std::string folder = dir_.file("made/prints");
  print(cmyk, {});
  const std::string beside = test::read_all(dir_.file("art.prt"));
  print(cmyk,
        {{"settings.json", {{"custom_output_folder_enabled", true}, {"custom_output_folder_path", folder}}}});
  EXPECT_EQ(test::read_all(folder + "/art.prt"), beside);
  EXPECT_FALSE(std::filesystem::exists(dir_.file("art.prt")));
}

TEST_F(SettingsRoad, EveryKeyOfColourReachesTheDrops) {
  for (const std::string& profile : {kCmykProfile, kOtherCmykProfile, kRgbProfile})
    if (!std::filesystem::exists(profile)) GTEST_SKIP() << profile << " is not installed";
  const auto with = [](const std::function<void(Knobs&)>& change) {
    return [=](Knobs& k) {
      k.output_profile = k.cmyk_profile = kCmykProfile;
      change(k);
    };
  };
  const json base = {
      {"enabled", true}, {"output_profile", kCmykProfile}, {"input_cmyk_profile", kCmykProfile}};
  std::vector<Row> rows = {
      {{{"enabled", false}}, rgb, [](Knobs&) {}},
      {{{"input_rgb_profile", kRgbProfile}}, rgb, with([](Knobs& k) { k.rgb_profile = kRgbProfile; })},
      {{{"output_profile", kOtherCmykProfile}}, rgb, with([](Knobs& k) {
         k.output_profile = kOtherCmykProfile;
       })},
      {{{"input_cmyk_profile", kOtherCmykProfile}}, cmyk, with([](Knobs& k) {
         k.cmyk_profile = kOtherCmykProfile;
       })},
      {{{"use_bpc", false}}, rgb, with([](Knobs& k) { k.bpc = false; })},
  };
  for (const int intent : {0, 2, 3})
    rows.push_back({{{"intent", intent}}, rgb, with([=](Knobs& k) {
                      k.intent = static_cast<cmsUInt32Number>(intent);
                    })});
  expect_rows("icc_settings.json", rows, base);
}

TEST_F(SettingsRoad, EveryEnvironmentVariableActsAndChangesNoDrop) {
  struct Variable {
    Environment set;
    std::string shows;  ///< in the log
    json settings = json::object();
  };
  const std::string usual = print(cmyk, {});
  const std::string lines = dir_.file("profile.jsonl");
  const std::string pool = "parallel channel RIP enabled, threads=";
  const Variable variables[] = {
      {{{"NVO_RIP_PARALLEL_CHANNELS", "on"}}, pool},
      {{{"NVO_RIP_PROFILE", "on"}, {"NVO_RIP_PROFILE_JSONL", lines}}, "StreamRip profile: path=streaming"},
      {{{"NVO_RIP_FORCE_FULL_LOAD_IMAGES", "1"}}, ""},
      {{{"NVO_RIP_FORCE_LOW_MEMORY_IMAGES", "1"}}, ""},
      {{{"NVO_WHITE_CHOKE_STRATEGY_DEBUG_OVERRIDE", "1"}}, "env override ignored"},
      {{},
       pool + "3",
       {{"rip_performance", {{"mode", "manual"}, {"parallel_channels", "on"}, {"channel_threads", 3}}}}},
  };
  for (const Variable& variable : variables) {
    SCOPED_TRACE(variable.set.empty() ? variable.settings.dump() : variable.set.begin()->first);
    EXPECT_TRUE(print(cmyk, {{"settings.json", variable.settings}}, variable.set) == usual);
    EXPECT_NE(log_.find(variable.shows), std::string::npos) << log_;
  }
  EXPECT_NE(test::read_all(lines).find("\"kind\":\"stream_rip_profile\""), std::string::npos);

  // Without a folder of the variable's own the settings lie below the home folder.
  std::filesystem::create_directories(dir_.path() / ".config");
  std::filesystem::rename(dir_.path() / "config/NVO_RIP", dir_.path() / ".config/NVO_RIP");
  std::filesystem::create_directories(dir_.path() / "config/NVO_RIP");
  test::write_all(dir_.file(".config/NVO_RIP/job_settings.json"), R"({"white_choke_enabled": false})");
  EXPECT_FALSE(print(cmyk, {}, {{"XDG_CONFIG_HOME", ""}, {"HOME", dir_.path()}}) == usual);
}

}  // namespace
}  // namespace nvo
