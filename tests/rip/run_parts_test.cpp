// What a run is put together from: the memory estimate and the profile.

#include <algorithm>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "rip/memory_estimate.h"
#include "rip/run_profile.h"
#include "support/failure.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::ScopedVariable;

TEST(FullBufferEstimate, CountsEveryBufferUpToAnExactCap) {
  // 10 x 20 source pixels, 6 x 12 dots.
  EXPECT_EQ(full_buffer_bytes({10, 20, 6, 12, false, false, false, false, false}),
            200u * 6 + 72 * 5 + 4 * (120 + 6));
  EXPECT_EQ(full_buffer_bytes({10, 20, 6, 12, true, true, true, true, false}),
            200u * 8 + 72 * 5 + 4 * (120 * 1 + 72 * 5 + 6 * 5));
  EXPECT_EQ(full_buffer_bytes({10, 20, 6, 12, true, false, false, true, true}),
            200u * 7 + 72 * 5 + 4 * (72 + 6));

  // With hard sampling and no choke a sheet of w x 1 pixels and 1 x 1 dots takes 6 w + 9 bytes.
  FullBufferNeeds needs{357913939, 1, 1, 1, false, false, false, true, true};
  ASSERT_EQ(full_buffer_bytes(needs), 2147483643u);
  EXPECT_NO_THROW(require_full_buffer_fits(needs));
  ++needs.src_w;
  EXPECT_EQ(test::failure_of([&] { require_full_buffer_fits(needs); }),
            "StreamRip full-buffer memory cap exceeded: estimate 2048 MiB > cap 2048 MiB");
  needs.src_w = needs.src_h = 4294967295;
  EXPECT_EQ(test::failure_of([&] { full_buffer_bytes(needs); }),
            "StreamRip: full-buffer source buffer size overflow");
}

TEST(StripLimits, RefuseOnlyWhatCannotBeHeld) {
  const std::tuple<StripNeeds, const char*> cases[] = {
      {{3'600'000, 8'640'000, 36, true}, ""},
      {{145'636, 349'525, 6'144, true}, ""},
      {{145'636, 349'525, 6'186, true}, "DropMap: allocation exceeds 2 GiB cap"},
      {{6'700'000, 16'080'000, 36, false}, ""},
      {{6'700'000, 16'080'000, 36, true},
       "StreamRip: the sheet is too wide: the buffers of its rows would take 5331.5 MiB > cap 4096 MiB"}};
  for (const auto& [needs, text] : cases)
    EXPECT_EQ(test::failure_of([&needs = needs] { require_strip_fits(needs); }), text) << needs.dev_rows;
  const StripNeeds small{10, 65, 60, true, 20, true};
  EXPECT_EQ(strip_bytes(small), 10u * 20 * 8 + 6 * 16 * 60 + row_buffer_bytes(small));
}

TEST(RunProfile, LogAndJsonTellTheSameNumbers) {
  for (const char* word : {"TRUE", "Yes", "0", "force"}) {
    const ScopedVariable variable("NVO_RIP_PROFILE", word);
    EXPECT_EQ(profile_enabled(), *word == 'T' || *word == 'Y') << word;
  }
  const test::TempDir dir;
  const std::string path = dir.file("runs.jsonl");
  StreamRipProfile profile;
  profile.streaming = true;
  profile.strip_count = 3;
  profile.total = 1'234'567;
  profile.compose_calls = 9;
  profile.rip_ch[2] = 2'000'000;
  profile.writer_counters.bytes = 12345;
  const test::LogCapture log;
  for (const std::string& target : {path, path, dir.path().string(), std::string("/dev/full")}) {
    const ScopedVariable variable("NVO_RIP_PROFILE_JSONL", target.c_str());
    report_profile(profile, "a\"b\n");
  }

  EXPECT_EQ(log.count("StreamRip profile: path=streaming parallel_channels=false output=\""), 4u);
  EXPECT_EQ(log.count(" strips=3 source_strip_pixels=0 device_channel_pixels=0 total_ms=1.235 "), 4u);
  EXPECT_EQ(log.count("compose_calls"), 0u) << "stands in the file alone";
  EXPECT_EQ(log.count("cannot open NVO_RIP_PROFILE_JSONL path: " + dir.path().string()), 1u);
  EXPECT_EQ(log.count("NVO_RIP_PROFILE_JSONL path: /dev/full: No space left on device"), 1u);
  const std::string text = test::read_all(path);
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
