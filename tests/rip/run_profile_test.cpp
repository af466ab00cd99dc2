#include "rip/run_profile.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

TEST(RunProfile, LogAndJsonTellTheSameNumbers) {
  for (const char* word : {"TRUE", "Yes", "0", "force"}) {
    ::setenv("NVO_RIP_PROFILE", word, 1);
    EXPECT_EQ(profile_enabled(), *word == 'T' || *word == 'Y') << word;
  }
  ::unsetenv("NVO_RIP_PROFILE");

  const test::TempDir dir;
  StreamRipProfile profile;
  profile.streaming = true;
  profile.strip_count = 3;
  profile.total = 1'234'567;
  profile.rip_ch[2] = 2'000'000;
  profile.compose_calls = 9;
  profile.writer_counters.bytes = 12345;
  const test::LogCapture log;
  for (const std::string& target : {dir.file("runs.jsonl"), dir.file("runs.jsonl"), dir.path().string()}) {
    ::setenv("NVO_RIP_PROFILE_JSONL", target.c_str(), 1);
    report_profile(profile, "a\"b\n");
  }
  ::unsetenv("NVO_RIP_PROFILE_JSONL");

  EXPECT_EQ(log.count("StreamRip profile: path=streaming parallel_channels=false output=\""), 3u);
  EXPECT_EQ(log.count(" strips=3 source_strip_pixels=0 device_channel_pixels=0 total_ms=1.235 "), 3u);
  EXPECT_EQ(log.count("compose_calls"), 0u) << "stands in the file alone";
  EXPECT_EQ(log.count("cannot open NVO_RIP_PROFILE_JSONL path: " + dir.path().string()), 1u);
  const std::string text = test::read_all(dir.file("runs.jsonl"));
  ASSERT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  const auto json = nlohmann::ordered_json::parse(text.substr(0, text.find('\n')));
  EXPECT_EQ(json["output_path"], "a\"b\n");
  EXPECT_EQ(json["total_ms"], 1.23457);
  EXPECT_EQ(json["rip_ch2_ms"], 2);
  EXPECT_EQ(json["writer_bytes"], 12345);
  EXPECT_EQ(json.size(), 44u);
  EXPECT_EQ(json.begin().key(), "schema_version");
}

}  // namespace
}  // namespace nvo
