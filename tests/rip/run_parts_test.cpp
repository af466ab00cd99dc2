// What a run is put together from: coverage planes, the memory estimate and the profile.

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "rip/coverage_planes.h"
#include "rip/memory_estimate.h"
#include "rip/run_profile.h"
#include "support/failure.h"
#include "support/log_capture.h"
#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::ScopedVariable;

// The lightness of a pixel, straight from its definition.
bool is_light(const std::uint8_t* ink, float threshold) {
  const float u = 0.003921569f;
  const float c = 1 - static_cast<float>(ink[0]) * u, m = 1 - static_cast<float>(ink[1]) * u;
  const float y = 1 - static_cast<float>(ink[2]) * u, k = 1 - static_cast<float>(ink[3]) * u;
  const float x = c * k * 0.2126f + m * k * 0.7152f + y * k * 0.0722f;
  const float f = x > 0.008856f ? std::cbrt(x) : 7.787f * x + 0.13793103f;
  return std::clamp(116.0f * f - 16.0f, 0.0f, 100.0f) >= threshold;
}

TEST(CoveragePlanes, EqualThePlainDefinition) {
  constexpr std::size_t kCount = 400'000;
  std::mt19937 random(7);
  std::vector<std::uint8_t> planes[4], coverage(kCount), light(kCount);
  for (auto& plane : planes)
    for (std::size_t i = 0; i < kCount; ++i)
      plane.push_back(static_cast<std::uint8_t>(i < 256 ? i : random() >> (random() % 8)));
  std::fill_n(planes[3].begin(), 256, std::uint8_t{0});  // pure grays
  const ColourPlanes inks{planes[0].data(), planes[1].data(), planes[2].data(), planes[3].data(), kCount};

  // Thresholds of every pixel's own lightness put each decision on the edge.
  std::vector<float> thresholds = {0, 1, 7.9995f, 7.9996f, 8, 8.0001f, 50, 85, 99.9999f, 100};
  for (int i = 0; i < 256; i += 15) thresholds.push_back(printed_lightness(static_cast<float>(i) / 255.0f));
  colour_coverage(inks, coverage.data());
  for (const float threshold : thresholds) {
    LightProtection(threshold).protect(inks, light.data());
    for (std::size_t i = 0; i < kCount; ++i) {
      const std::uint8_t ink[4] = {planes[0][i], planes[1][i], planes[2][i], planes[3][i]};
      ASSERT_EQ(coverage[i], *std::max_element(ink, ink + 4));
      ASSERT_EQ(light[i], is_light(ink, threshold) ? 255 : 0) << threshold << " at " << i;
    }
  }
}

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
