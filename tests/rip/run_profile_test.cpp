#include "rip/run_profile.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

TEST(RunProfile, SwitchKnowsFourWords) {
  for (const char* word : {"1", "TRUE", "on", "Yes"}) {
    ::setenv("NVO_RIP_PROFILE", word, 1);
    EXPECT_TRUE(profile_enabled()) << word;
  }
  for (const char* word : {"", "0", "maybe", "force"}) {
    ::setenv("NVO_RIP_PROFILE", word, 1);
    EXPECT_FALSE(profile_enabled()) << word;
  }
  ::unsetenv("NVO_RIP_PROFILE");
  EXPECT_FALSE(profile_enabled());
}

TEST(RunProfile, LogAndJsonTellTheSameNumbers) {
  const test::TempDir dir;
  const std::string jsonl = dir.file("runs.jsonl");
  ::setenv("NVO_RIP_PROFILE_JSONL", jsonl.c_str(), 1);
  StreamRipProfile profile;
  profile.streaming = true;
  profile.strip_count = 3;
  profile.total = 1'234'567;
  profile.rip_ch[2] = 2'000'000;
  profile.compose_calls = 9;
  profile.compositor.pixels_written = 77;
  profile.writer_counters.bytes = 12345;
  const test::LogCapture log;
  report_profile(profile, "a\"b\n");
  report_profile(profile, "c");
  ::setenv("NVO_RIP_PROFILE_JSONL", dir.path().c_str(), 1);
  report_profile(profile, "d");
  ::unsetenv("NVO_RIP_PROFILE_JSONL");

  EXPECT_TRUE(log.contains(
      "StreamRip profile: path=streaming parallel_channels=false output=\"c\" src_px=0x0 dev_px=0x0 "
      "strips=3 source_strip_pixels=0 device_channel_pixels=0 total_ms=1.235 compose_ms=0.000 "));
  EXPECT_EQ(log.count("compose_calls"), 0u) << "stands in the file alone";
  EXPECT_EQ(log.count(" rip_ch2_ms=2.000 rip_ch3_ms="), 3u);
  EXPECT_EQ(log.count("cannot open NVO_RIP_PROFILE_JSONL path: " + dir.path().string()), 1u);

  const std::string text = test::read_all(jsonl);
  ASSERT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  const auto json = nlohmann::ordered_json::parse(text.substr(0, text.find('\n')));
  EXPECT_EQ(json["output_path"], "a\"b\n");
  EXPECT_EQ(json["total_ms"], 1.23457);
  EXPECT_EQ(json["compose_calls"], 9);
  EXPECT_EQ(json["comp_pixels_written"], 77);
  EXPECT_EQ(json["writer_bytes"], 12345);
  EXPECT_EQ(json.size(), 44u);
  EXPECT_EQ(json.begin().key(), "schema_version");
}

}  // namespace
}  // namespace nvo
