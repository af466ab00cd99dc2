#include "app/progress_line.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace nvo {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;

TEST(ProgressText, TellsRateAndTimeLeftOnceThereIsSomethingToGoBy) {
  const std::tuple<RipProgress, std::uint64_t, const char*> cases[] = {
      {{0, 12, 0.0f, "Streaming strip 1/12", 0}, kSecond, "Streaming strip 1/12: 0 done, 0 %"},
      {{1, 4, 25.0f, "Strip 2/4", 6144}, 2 * kSecond, "Strip 2/4: 1 done, 25 %, 3072 rows/s, 0:06 left"},
      {{1, 95, 1.0f, "Strip", 6144}, 40 * kSecond, "Strip: 1 done, 1 %, 154 rows/s, 1:06:00 left"},
      {{2, 5, 63.0f, "Ripping channel 3/5", 0}, kSecond / 10, "Ripping channel 3/5: 2 done, 63 %, 0:01 left"},
      {{5, 5, 100.0f, "Done", 0}, kSecond, "Done: 5 done, 100 %, 0:00 left"},
  };
  for (const auto& [progress, elapsed, text] : cases) EXPECT_EQ(progress_text(progress, elapsed), text);
}

TEST(ProgressFeed, IsALineOfJsonAStepTenTimesASecond) {
  std::uint64_t now = 7 * kSecond;
  std::string sent;
  ProgressFeed feed([&](const std::string& line) { sent += line; }, [&] { return now; });
  for (int step = 0; step < 5; ++step, now += 60'000'000)
    feed.show({1, 4, 25.0f + static_cast<float>(step), "Strip \"2/4\"", 6144});
  feed.show({4, 4, 97.0f, "End", 0});
  feed.show({4, 4, 100.0f, "Done", 0});
  const std::string strip = R"(,"message":"Strip \"2/4\"","rows":6144,"seconds":)";
  EXPECT_EQ(
      sent,
      R"({"stage":1,"stages":4,"percent":25.0)" + strip + "0.0,\"left\":null}\n" +
          R"({"stage":1,"stages":4,"percent":27.0)" + strip + "0.1,\"left\":0.3}\n" +
          R"({"stage":1,"stages":4,"percent":29.0)" + strip + "0.2,\"left\":0.6}\n" +
          R"({"stage":4,"stages":4,"percent":97.0,"message":"End","rows":0,"seconds":0.3,"left":0.0})" +
          "\n" +
          R"({"stage":4,"stages":4,"percent":100.0,"message":"Done","rows":0,"seconds":0.3,"left":0.0})" +
          "\n");
}

TEST(ProgressLine, IsRewrittenInPlaceAndGoneAtTheEnd) {
  std::uint64_t now = 7 * kSecond;
  std::size_t columns = 80;
  std::vector<std::string> sent;
  const std::string unfinished = "|", log_line = "(log)";
  const auto print = [&] { sent.push_back(log_line); };
  {
    ProgressLine line(
        {[&](const std::string& text, bool stays) { sent.push_back(text + (stays ? unfinished : "")); },
         [&] { return columns; }, [&] { return now; }});
    line.step_aside(print);  // there is no line yet
    for (int strip = 0; strip < 12; ++strip, now += 30'000'000)
      line.show({strip, 20, static_cast<float>(strip) * 5.0f, "Strip", 0});
    line.step_aside(print);
    line.show({20, 20, 97.0f, "End", 0});
    columns = 12;  // the window became narrower
    line.show({20, 20, 100.0f, "End", 0});
  }
  const std::string last = "\rStrip: 8 done, 40 %, 0:01 left", blanks(last.size() - 1, ' ');
  // Every fourth of the records, which come 30 ms apart, is shown, the last stage at once. A line of the log
  // starts at the left. No line reaches the last column, where it would wrap.
  EXPECT_EQ(sent,
            (std::vector<std::string>{log_line, "\rStrip: 0 done, 0 %" + unfinished,
                                      "\rStrip: 4 done, 20 %, 0:01 left" + unfinished, last + unfinished,
                                      "\r" + blanks + "\r", log_line, last + unfinished,
                                      "\rEnd: 20 done, 97 %, 0:01 left " + unfinished,
                                      "\rEnd: 20 don" + unfinished, "\r" + std::string(11, ' ') + "\r"}));
}

}  // namespace
}  // namespace nvo
