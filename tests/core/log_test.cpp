#include "core/log.h"

#include <regex>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace nvo {
namespace {

struct CountsFormatting {
  mutable int* count;
};
std::ostream& operator<<(std::ostream& stream, const CountsFormatting& piece) {
  ++*piece.count;
  return stream << "piece";
}

TEST(Logger, ConsoleLineHasTimeLevelAndText) {
  testing::internal::CaptureStdout();
  log_info("Done: ", "out.prt", " ", 7, " ", 0.0066666667f);
  Logger::instance().log(static_cast<LogLevel>(7), "odd");
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(std::regex_match(console, std::regex(R"(\d\d:\d\d:\d\d \[INFO \] Done: out\.prt 7 0\.00666667
\d\d:\d\d:\d\d \[\?\?\?\?\?\] odd
)"))) << console;
}

TEST(Logger, LinesBelowTheLevelAreNotFormatted) {
  const test::LogCapture log(LogLevel::info);
  int formatted = 0;
  log_debug(CountsFormatting{&formatted});
  log_warn(CountsFormatting{&formatted});
  EXPECT_EQ(formatted, 1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"[WARN ] piece"});
}

TEST(Logger, ShowsControlCharactersAndSaysAWarningOnceAJob) {
  const test::LogCapture log;
  const auto say = [] {
    log_warn("ink '\x1B[2J\n", "14:00:00 [INFO ] Done: a.prt\x7F'");
    log_error("the disk is slow");
    log_info("strip");
  };
  Logger::instance().begin_job();
  say();
  log_error("ink 'plain'");
  const std::vector<std::string> once = log.lines();
  EXPECT_EQ(once,
            (std::vector<std::string>{R"([WARN ] ink '\x1B[2J\x0A14:00:00 [INFO ] Done: a.prt\x7F')",
                                      "[ERROR] the disk is slow", "[INFO ] strip", "[ERROR] ink 'plain'"}));
  say();
  EXPECT_EQ(log.lines().size(), once.size() + 1);  // the INFO line
  Logger::instance().begin_job();
  say();
  EXPECT_EQ(log.lines().size(), once.size() + 4);
}

TEST(Logger, SinksSilenceTheConsoleAndMayLogAndUnregister) {
  testing::internal::CaptureStdout();
  int first = 0, calls = 0;
  first = Logger::instance().add_sink([&](LogLevel level, const std::string&) {
    ++calls;
    Logger::instance().remove_sink(first);
    if (level == LogLevel::error) log_info("from a sink");
  });
  {
    const test::LogCapture second;
    log_error("to both");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(second.lines(), (std::vector<std::string>{"[INFO ] from a sink", "[ERROR] to both"}));
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace nvo
