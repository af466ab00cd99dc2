#include "core/platform/child_process.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo::platform {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

constexpr ChildLimits kRoomy{60s, std::uint64_t{1} << 30, 1 << 20};

ChildResult shell(const std::string& script, const ChildLimits& limits = kRoomy) {
  return run_child({"/bin/sh", "-c", script}, limits);
}

TEST(ChildProcess, DeliversItsOutputsAndHowItEnded) {
  const test::TempDir dir;
  test::write_all(dir.file("plain"), "text");
  const std::string cut(65536, '\0');
  const std::tuple<std::vector<std::string>, ChildEnd, int, std::string, std::string> cases[] = {
      {{"/bin/sh", "-c", "cat; printf out; printf err >&2; exit 7"}, ChildEnd::exited, 7, "out", "err"},
      {{"/bin/sh", "-c", "/usr/bin/head -c 1000000 /dev/zero >&2"}, ChildEnd::exited, 0, "", cut},
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

TEST(ChildProcess, InheritsNothingButPlainLanguage) {
  const test::TempDir dir;
  std::ofstream open_here(dir.file("open"));
  const test::ScopedVariable language("LC_ALL", "de_DE.UTF-8");
  ::signal(SIGPIPE, SIG_IGN);
  const ChildResult result = shell("echo $LC_ALL; ls -l /proc/$$/fd; kill -PIPE $$");
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
