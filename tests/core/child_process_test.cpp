#include "core/platform/child_process.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo::platform {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr ChildLimits kRoomy{60s, std::uint64_t{1} << 30, 1 << 20};

/// A shell, which may start the programs of its script unless told otherwise.
ChildResult shell(const std::string& script, ChildLimits limits = kRoomy, bool alone = false) {
  limits.may_start_processes = !alone;
  return run_child({"/bin/sh", "-c", script}, limits);
}

TEST(ChildProcess, DeliversItsOutputsAndHowItEnded) {
  const test::TempDir dir;
  test::write_all(dir.file("plain"), "text");
  const std::string cut(65536, '\0');
  const std::tuple<std::vector<std::string>, ChildEnd, int, std::string, std::string> cases[] = {
      {{"/bin/sh", "-c", "read x; printf out; printf err >&2; exit 7"}, ChildEnd::exited, 7, "out", "err"},
      {{"/bin/sh", "-c", "exec /usr/bin/head -c 1000000 /dev/zero >&2"}, ChildEnd::exited, 0, "", cut},
      {{"/bin/sh", "-c", "kill -TERM $$"}, ChildEnd::signalled, SIGTERM, "", ""},
      {{"/bin/echo", "$(id); 'x' *", "", "-n"}, ChildEnd::exited, 0, "$(id); 'x' *  -n\n", ""},
      {{dir.file("none")}, ChildEnd::not_started, ENOENT, "", ""},
      {{dir.file("plain")}, ChildEnd::not_started, EACCES, "", ""},
  };
  for (const auto& [command, end, code, output, diagnostics] : cases) {
    const ChildResult result = run_child(command, kRoomy);
    EXPECT_EQ(std::tuple(result.end, result.code, result.output, result.diagnostics),
              std::tuple(end, code, output, diagnostics));
  }
}

TEST(ChildProcess, InheritsLittle) {
  const test::TempDir dir;
  std::ofstream open_here(dir.file("open"));
  const test::ScopedVariable language("LC_ALL", "de_DE.UTF-8"), secret("NVO_SECRET", "x");
  const test::ScopedVariable home("HOME", "/fonts"), preload("LD_LIBRARY_PATH", "/nowhere");
  ::signal(SIGPIPE, SIG_IGN);
  const ChildResult result = shell("/usr/bin/env; ls -l /proc/$$/fd; kill -PIPE $$");
  EXPECT_THAT(result.output, AllOf(HasSubstr("LC_ALL=C\n"), HasSubstr("HOME=/fonts\n"), HasSubstr("PATH=")));
  for (const std::string& kept : {dir.path().string(), "SECRET"s, "LD_"s, "de_DE"s})
    EXPECT_THAT(result.output, Not(HasSubstr(kept)));
  EXPECT_EQ(result.code, SIGPIPE) << "ignored signals do not stay ignored";
}

TEST(ChildProcess, CanDoLittle) {
  const test::TempDir dir;
  const std::string file = dir.file("file"), old = dir.file("old");
  test::write_all(old, "old");
  const std::pair<std::string, std::string> cases[] = {
      {"echo x >'" + file + "'; echo $?", "2\n"},
      {"exec 3<>'" + old + "' && echo opened", ""},
      {"exec /bin/mv '" + old + "' '" + file + "'", ""},
      {"exec /bin/rm -f '" + old + "'", ""},
      {"exec /usr/bin/truncate -s 0 '" + old + "'", ""},
      {"(echo began) 2>&1 | cat", ""},
      {"/bin/true; echo $?", ""},
      {"ulimit -n; ulimit -c", "64\n0\n"},
      {"while read -r key value; do case $key in NoNewPrivs:) echo $value; esac; done </proc/self/status",
       "1\n"},
  };
  for (const auto& [script, output] : cases) EXPECT_EQ(shell(script, kRoomy, true).output, output) << script;
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(test::read_all(old), "old");
}

TEST(ChildProcess, WritesTheFileThatItIsGivenAndNoByteTooMany) {
  SpoolFile file;
  ASSERT_EQ(file.create(temporary_folder()), 0);
  ChildLimits limits = kRoomy;
  limits.output_file = &file;
  limits.standard_output = 10;
  EXPECT_EQ(shell("printf 12345; printf 678", limits, true).output, "");
  char bytes[8];
  EXPECT_EQ(file.read_at(0, bytes, 8), 0);
  EXPECT_EQ(std::string(bytes, 8), "12345678");
  EXPECT_NE(shell("printf 90123", limits, true).code, 0);
  EXPECT_EQ(file.size(), 10u);
}

TEST(ChildProcess, IsEndedAtALimit) {
  ChildLimits limits = kRoomy;
  limits.time = 200ms;
  EXPECT_EQ(shell("exec >&- 2>&-; exec /bin/sleep 1000", limits).end, ChildEnd::timed_out)
      << "outputs closed";
  EXPECT_EQ(shell("while :; do echo; done >&2", limits).end, ChildEnd::timed_out) << "never silent";

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

/// However the child ends and wherever its own children went, none lives on or keeps the caller waiting.
TEST(ChildProcess, LeavesNobodyBehind) {
  const test::TempDir dir;
  const std::string begun = dir.file("begun");  // a pipe
  const std::string stay =
      "/bin/sh -c 'echo $$; echo >" + begun + "; exec /bin/sleep 1000' & read x <" + begun;
  const std::string session = "/usr/bin/setsid " + stay;
  const std::pair<std::string, ChildEnd> cases[] = {
      {stay + "; wait", ChildEnd::timed_out},          {stay + "; exit 0", ChildEnd::exited},
      {session + "; wait", ChildEnd::timed_out},       {session + "; exit 0", ChildEnd::exited},
      {session + "; kill -9 $$", ChildEnd::signalled},
  };
  ASSERT_EQ(shell("/usr/bin/mkfifo " + begun).code, 0);
  for (const auto& [script, end] : cases) {
    ChildLimits limits = kRoomy;
    limits.time = end == ChildEnd::timed_out ? 500ms : 60s;
    const ChildResult result = shell(script, limits);
    EXPECT_EQ(result.end, end) << script;
    ASSERT_NE(result.output, "") << script;
    EXPECT_EQ(::kill(std::stoi(result.output), 0), -1) << script;
  }
}

TEST(FindProgram, TakesExecutableFilesInAbsoluteFoldersOnly) {
  const test::TempDir dir;
  test::write_all(dir.file("plain"), "text");
  std::filesystem::create_directory(dir.path() / "sh");
  const test::ScopedVariable path("PATH", (".::" + dir.path().string() + ":/nowhere:/bin").c_str());
  EXPECT_EQ(find_program("sh"), "/bin/sh");
  EXPECT_EQ(find_program("plain"), "");
}

}  // namespace
}  // namespace nvo::platform
