#include "core/platform/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace nvo::platform {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr ChildLimits kRoomy{60s, std::uint64_t{1} << 30, 1 << 20};

ChildResult shell(const std::string& script, const ChildLimits& limits = kRoomy) {
  return run_child({"/bin/sh", "-c", script}, limits);
}

TEST(ChildProcess, DeliversBothOutputsAndTheExitCode) {
  const ChildResult result = shell("cat; printf out; printf err >&2; exit 7");
  EXPECT_EQ(result.end, ChildEnd::exited) << "its input is empty";
  EXPECT_EQ(result.code, 7);
  EXPECT_EQ(result.output, "out");
  EXPECT_EQ(result.diagnostics, "err");

  const ChildResult killed = shell("kill -TERM $$");
  EXPECT_EQ(killed.end, ChildEnd::signalled);
  EXPECT_EQ(killed.code, SIGTERM);
}

TEST(ChildProcess, ArgumentsReachTheProgramAsTheyAre) {
  const ChildResult result = run_child({"/bin/echo", "$(id); 'x' *", "", "-n"}, kRoomy);
  EXPECT_EQ(result.output, "$(id); 'x' *  -n\n");
}

TEST(ChildProcess, InheritsNothingButPlainLanguage) {
  const test::TempDir dir;
  std::ofstream open_here(dir.file("open"));
  ::setenv("LC_ALL", "de_DE.UTF-8", 1);
  ::signal(SIGPIPE, SIG_IGN);
  const ChildResult result = shell("echo $LC_ALL; ls -l /proc/$$/fd; kill -PIPE $$");
  ::unsetenv("LC_ALL");
  EXPECT_EQ(result.output.substr(0, 2), "C\n");
  EXPECT_THAT(result.output, Not(HasSubstr(dir.path().string())));
  EXPECT_EQ(result.code, SIGPIPE) << "ignored signals do not stay ignored";
}

TEST(ChildProcess, IsEndedWithItsOwnChildrenAtALimit) {
  const test::TempDir dir;
  const std::string grandchild = dir.file("grandchild");
  ChildLimits limits = kRoomy;
  limits.time = 200ms;
  const ChildResult late = shell("/bin/sleep 1000 & echo $! >'" + grandchild + "'; echo begun; wait", limits);
  EXPECT_EQ(late.end, ChildEnd::timed_out);
  EXPECT_EQ(late.output, "begun\n");
  const std::string state = "/proc/" + std::to_string(std::stoi(test::read_all(grandchild))) + "/stat";
  while (test::read_all(state).find(" S ") != std::string::npos) std::this_thread::yield();

  EXPECT_EQ(shell("exec >&- 2>&-; exec /bin/sleep 1000", limits).end, ChildEnd::timed_out)
      << "outputs closed";

  limits = kRoomy;
  limits.standard_output = 10;
  EXPECT_EQ(shell("printf 1234567890", limits).end, ChildEnd::exited);
  EXPECT_EQ(shell("printf 12345678901; exec /bin/sleep 1000", limits).end, ChildEnd::too_much_output);

  limits = kRoomy;
  limits.address_space = 64 << 20;
  EXPECT_NE(
      shell("exec /usr/bin/head -c 100000000 /dev/zero | /usr/bin/tail -n 1 | /usr/bin/wc -c", limits).output,
      "100000000\n");
}

TEST(ChildProcess, ManyDiagnosticsAreCutAndDoNotBlock) {
  const ChildResult result = shell("/usr/bin/head -c 1000000 /dev/zero >&2; printf done");
  EXPECT_EQ(result.output, "done");
  EXPECT_EQ(result.diagnostics.size(), 65536u);
}

TEST(ChildProcess, ThatCannotStartSaysWhy) {
  const test::TempDir dir;
  test::write_all(dir.file("plain"), "text");
  EXPECT_EQ(run_child({dir.file("none")}, kRoomy).code, ENOENT);
  const ChildResult result = run_child({dir.file("plain")}, kRoomy);
  EXPECT_EQ(result.end, ChildEnd::not_started);
  EXPECT_EQ(result.code, EACCES);
}

TEST(FindProgram, TakesExecutableFilesInAbsoluteFoldersOnly) {
  const test::TempDir dir;
  test::write_all(dir.file("plain"), "text");
  std::filesystem::create_directory(dir.path() / "sh");
  const std::string old = std::getenv("PATH");
  ::setenv("PATH", (".::" + dir.path().string() + ":/nowhere:/bin").c_str(), 1);
  EXPECT_EQ(find_program("sh"), "/bin/sh");
  EXPECT_EQ(find_program("plain"), "");
  ::setenv("PATH", old.c_str(), 1);
}

}  // namespace
}  // namespace nvo::platform
