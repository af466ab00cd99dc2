#include "app/progress_line.h"

#include <algorithm>
#include <tuple>

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

/// A terminal of one line that understands what a progress line sends.
struct Screen {
  std::size_t columns = 80;
  std::uint64_t now = 7 * kSecond;
  std::string line;
  std::size_t cursor = 0, drawings = 0;
  bool unfinished = false;

  ProgressTerminal terminal() {
    return {[this](const std::string& text) { take(text); }, [this](bool now_so) { unfinished = now_so; },
            [this] { return columns; }, [this] { return now; }};
  }
  void take(const std::string& text) {
    ++drawings;
    EXPECT_TRUE(unfinished) << "a signal right behind the text finds no line";
    for (const char c : text) {
      if (c == '\r') {
        cursor = 0;
        continue;
      }
      ASSERT_LT(cursor, columns - 1) << "the line wraps";
      line.resize(std::max(line.size(), cursor + 1), ' ');
      line[cursor++] = c;
    }
  }
  std::string shown() const { return line.substr(0, line.find_last_not_of(' ') + 1); }
};

TEST(ProgressLine, IsRewrittenInPlaceAndGoneAtTheEnd) {
  Screen screen;
  {
    ProgressLine line(screen.terminal());
    line.step_aside([] {});
    EXPECT_EQ(screen.drawings, 0u) << "no line yet";
    for (int strip = 0; strip < 20; ++strip, screen.now += 30'000'000)
      line.show({strip, 20, static_cast<float>(strip) * 5.0f, "Strip", 0});
    EXPECT_EQ(screen.drawings, 5u) << "every fourth of the records, which come 30 ms apart";
    EXPECT_EQ(screen.shown(), "Strip: 16 done, 80 %, 0:01 left");
    EXPECT_TRUE(screen.unfinished);
    line.step_aside([&] {
      EXPECT_EQ(screen.shown(), "");
      EXPECT_FALSE(screen.unfinished);
      EXPECT_EQ(screen.cursor, 0u) << "a line of the log starts at the left";
    });
    EXPECT_EQ(screen.shown(), "Strip: 16 done, 80 %, 0:01 left");
    line.show({20, 20, 97.0f, "End", 0});
    EXPECT_EQ(screen.shown(), "End: 20 done, 97 %, 0:01 left") << "at once, and nothing of the longer line";

    screen.columns = 12;  // the window became narrower
    line.show({20, 20, 100.0f, "End", 0});
    EXPECT_EQ(screen.line.substr(0, 11), "End: 20 don");
    screen.line.resize(11);
  }
  EXPECT_EQ(screen.shown(), "");
  EXPECT_EQ(screen.cursor, 0u);
}

}  // namespace
}  // namespace nvo
