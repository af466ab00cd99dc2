#include "config/rip_settings.h"

#include <cmath>
#include <tuple>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

class RipSettingsFile : public testing::Test {
 protected:
  RipSettings read(const std::string& text) {
    test::write_all(path, text);
    return load_rip_settings(path);
  }
  test::TempDir dir;
  std::string path = dir.file("settings.json");
};

TEST_F(RipSettingsFile, OneInvalidValueRefusesTheWholeFileWithItsText) {
  const std::string long_text(32769, 'x');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[]", "top-level JSON must be an object."},
      {R"({"channels":{"C":1}})", "channels.C must be an object."},
      {R"({"channels":{"C":{"limit":300}}})", "channels.C.limit must be finite and in range 0..255."},
      {R"({"channels":{"M":{"gamma":"1"}}})", "channels.M.gamma must be a finite number."},
      {R"({"channels":{"K":{"lut":[1,2]}}})",
       "channels.K.lut must be null or an array of exactly 256 numbers."},
      {R"({"last_tiff_path":")" + long_text + "\"}", "last_tiff_path is too large."},
      {R"({"sheet_width_in":500.01})", "sheet_width_in must be finite and in range 0.01..500."},
      {R"({"custom_output_folder_enabled":"yes"})", "custom_output_folder_enabled must be a boolean."},
      {R"({"rip_performance":{"row_threads":1.0}})",
       "rip_performance.row_threads must be a non-negative integer."},
      {R"({"rip_performance":{"row_threads":-1}})", "rip_performance.row_threads must be non-negative."},
      {R"({"rip_performance":{"row_threads":1025}})", "rip_performance.row_threads exceeds maximum 1024"},
      {R"({"rip_performance":{"autotune":{"machine":7}}})",
       "rip_performance.autotune.machine must be a string."},
      {R"({"rip_performance":{"autotune_inputs":{"qty":1001}}})",
       "rip_performance.autotune_inputs.qty exceeds maximum 1000"},
      {R"({"filename_copies":{"markers":3}})", "filename_copies.markers must be a string or array."},
      {R"({"filename_copies":{"markers":["a",3]}})", "filename_copies.markers[1] must be a string."},
      {R"({"filename_copies":{"markers":[")" + long_text + "\"]}}",
       "filename_copies.markers[0] is too large."},
  };
  for (const auto& [text, message] : cases) {
    const test::LogCapture log;
    // A valid value beside the invalid one is not kept.
    const std::string mixed =
        text == "[]" ? text : text.substr(0, text.size() - 1) + R"(,"ui_language":"ru"})";
    EXPECT_EQ(read(mixed).ui_language, "en") << message;
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[ERROR] RipSettings: invalid config for '" + path +
                                                    "': " + message + "; falling back to defaults."});
  }
  const test::LogCapture log;
  read("{");
  EXPECT_EQ(log.lines().at(0),
            "[ERROR] RipSettings: falling back to defaults for '" + path + "': Cannot parse JSON: " + path);
}

TEST_F(RipSettingsFile, ValidValuesArriveAndVagueOnesWarnOrKeepTheirDefault) {
  std::string lut = "0";
  for (int i = 1; i < 256; ++i) lut += "," + std::to_string(255 - i);
  test::LogCapture log;
  const RipSettings s = read(
      R"({"output_chanel_map":1,"row_threads":2,"channels":{"K":{"lut":null,"gamma":0.1,"gama":2},"k":{},"Y":{"lut":[)" +
      lut +
      R"(]}},"sheet_width_in":500,"display_units":"Milli-Meters","rip_performance":{"mode":"Custom",
      "parallel_rows":"FORCED","parallel_channels":"disabled","parallel_sheets":"perhaps","row_threads":1024,
      "autotune_inputs":{"qty":0}},"filename_copies":{"position":"After","markers":" x2 ,; y\t"}})");
  const std::string unknown = "[WARN ] RipSettings: unknown key '",
                    in_file = "' in '" + path + "' is ignored; ";
  EXPECT_EQ(log.take(),
            (std::vector{unknown + "channels.K.gama" + in_file + "did you mean 'channels.K.gamma'?",
                         unknown + "channels.k" + in_file + "did you mean 'channels.K'?",
                         unknown + "output_chanel_map" + in_file +
                             "did you mean 'output_channel_map' of job_settings.json?",
                         unknown + "row_threads" + in_file + "did you mean 'rip_performance.row_threads'?"}));
  EXPECT_TRUE(s.channels[3].lut.empty() && s.channels[2].lut.at(254) == 1.0f);
  EXPECT_EQ(std::tuple(s.channels[3].gamma, s.channels[0].limit, s.sheet_width_in),
            std::tuple(0.1f, 220.0f, 500.0f));
  EXPECT_EQ(s.display_units, "mm");
  const RipPerformance& p = s.rip_performance;
  EXPECT_EQ(std::tuple(p.mode, p.parallel_rows, p.parallel_channels, p.parallel_sheets, p.row_threads),
            std::tuple(PerformanceMode::manual, TriState::on, TriState::off, TriState::automatic, 1024u));
  EXPECT_EQ(p.autotune_inputs.qty, 0u);
  EXPECT_EQ(s.filename_copies.position, CopiesPosition::number_after_marker);
  EXPECT_EQ(s.filename_copies.markers, (std::vector<std::string>{"x2", "y"}));

  EXPECT_EQ(load_rip_settings(dir.file("none.json")).display_units, "in");
  const RipSettings vague =
      read(R"({"display_units":"Feet","ui_language":"ru","filename_copies":{"markers":" , "}})");
  EXPECT_EQ(vague.display_units + vague.ui_language, "inru");
  EXPECT_EQ(vague.filename_copies.markers.size(), 3u) << "no marker keeps the default";
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"[WARN ] DisplayUnits: unknown display_units token 'Feet'; using in."});
}

TEST(ChannelCurves, TablesFromLimitAndGammaOrLut) {
  RipSettings settings;
  std::vector<float> short_table(255, 1.0f), table(256, 300.0f);
  table[1] = NAN, table[2] = -5.0f;
  settings.channels = {{{300, NAN, {}}, {NAN, 1, {}}, {100, 2, short_table}, {0, 1, table}, {200, 99, {}}}};
  const auto curves = channel_curves(settings);
  ASSERT_EQ(curves.size(), 6u);
  EXPECT_EQ(curves[0][255], 255.0f);
  EXPECT_EQ(curves[0][51], 51.0f / 255.0f * 255.0f) << "no gamma counts as 1";
  EXPECT_EQ(curves[1][255], 0.0f);
  EXPECT_EQ(curves[2][51], std::pow(0.2f, 2.0f) * 100.0f) << "a short table is no table";
  EXPECT_EQ(curves[3][0], 255.0f);
  EXPECT_EQ(curves[3][1] + curves[3][2], 0.0f);
  EXPECT_EQ(curves[4][51], std::pow(0.2f, 5.0f) * 200.0f);
  EXPECT_EQ(curves[5], curves[4]);
}

}  // namespace
}  // namespace nvo
