// The real program with the system failing below it: one call after the other, memory for good, signals in
// the middle of a call.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

using Names = std::vector<std::string>;

class OutputFailure : public testing::Test {
 protected:
  OutputFailure() {
    test::write_tiff(dir.file("art.tif"), test::cmykw_tiff(60, 1500, {}));
    EXPECT_EQ(run("", "").code, 0);
    whole = test::read_all(print);
  }

  /// The program with a fault that concerns files of these paths.
  test::Outcome run(const std::string& fault, const std::string& path) {
    test::write_all(print, "older");
    // With a pool of threads there are others than the one that creates the file, to take a signal.
    std::map<std::string, std::string> environment = {{"XDG_CONFIG_HOME", config.path()},
                                                      {"NVO_RIP_PARALLEL_CHANNELS", "1"},
                                                      {"NVO_FAULT", fault},
                                                      {"NVO_FAULT_COUNT", count.file("count")},
                                                      {"LD_PRELOAD", NVO_FAULT_PRELOAD}};
    if (!path.empty()) environment["NVO_FAULT_PATH"] = path;
    return test::run_to_end({NVO_RIP_PROGRAM, dir.file("art.tif")}, environment);
  }

  /// Calls of a kind in a run that nothing disturbs.
  long calls_of(const std::string& kind, const std::string& path) {
    run(kind + ":0", path);
    const std::string text = test::read_all(count.file("count"));
    std::filesystem::remove(count.file("count"));
    return text.empty() ? 0 : std::stol(text);
  }

  /// The print is whole after code 0, else as it was; nothing lies beside it.
  void expect_old_or_whole(int code, const std::string& fault) {
    EXPECT_TRUE(test::read_all(print) == (code == 0 ? whole : "older")) << fault << ", code " << code;
    EXPECT_EQ(dir.names(), (Names{"art.prt", "art.tif"})) << fault;
  }

  test::TempDir dir, config, count;
  std::string print = dir.file("art.prt"), whole;
};

TEST_F(OutputFailure, EveryCallOnThePrintFileMayFailAndTheLogSaysWhy) {
  const std::string target = "HosonWriter::end_stream_write: ";
  const struct {
    std::string call;
    int error;
    std::string path, cause, text;
  } cases[] = {
      {"open:1", ENOSPC, ".nvo_tmp_", "cannot create", "begin_stream_write: cannot open output file: "},
      {"write:1", ENOSPC, ".nvo_tmp_", "cannot write", "write_dropmaps: failed to write "},
      {"write:2", EIO, ".nvo_tmp_", "cannot write", "write_dropmaps: failed to write "},
      {"flush:1", EIO, ".nvo_tmp_", "cannot flush", target + "flush/commit failed: "},
      {"close:1", EIO, ".nvo_tmp_", "cannot close", target + "close failed: "},
      {"rename:1", EACCES, "", "cannot put in place", target + "atomic replace failed: "},
  };
  for (const auto& c : cases) {
    const std::string fault =
        c.call + ":" + std::to_string(c.error) + (c.call == "open:1" ? ":for-good" : "");
    const test::Outcome outcome = run(fault, c.path);
    EXPECT_EQ(outcome.code, 2) << fault;
    EXPECT_THAT(outcome.out, testing::ContainsRegex("\\[ERROR\\] Print file: " + c.cause +
                                                    " .*art.prt.* bytes wanted\\): " + ::strerror(c.error) +
                                                    "\n.*Fatal: .*" + c.text));
    EXPECT_THAT(outcome.err, testing::ContainsRegex("^Fatal: .*" + c.text)) << fault;
    expect_old_or_whole(outcome.code, fault);
  }
  const test::Outcome folder_not_synced = run("flush:2:5", "/nvo_test_");
  EXPECT_EQ(folder_not_synced.code, 0) << "after the file has its name nothing fails any more";
  expect_old_or_whole(0, "flush of the folder");
}

TEST_F(OutputFailure, ADiskThatDoesNotReadIsNoMissingSettingsFile) {
  std::filesystem::create_directories(config.path() / "NVO_RIP");
  for (const std::string name : {"settings.json", "job_settings.json", "icc_settings.json"}) {
    test::write_all(config.file("NVO_RIP/" + name), "{}");
    for (const std::string kind : {"read", "open"}) {
      const test::Outcome outcome = run(kind + ":1:5", "NVO_RIP/" + name);
      EXPECT_EQ(outcome.code, 2) << name;
      EXPECT_THAT(outcome.err, testing::AllOf(testing::StartsWith("Fatal: "), testing::HasSubstr(name),
                                              testing::HasSubstr("Input/output error")));
    }
  }
}

TEST_F(OutputFailure, MemoryThatIsGoneForGoodEndsTheJobInWords) {
  const long calls = calls_of("memory", "");
  ASSERT_GT(calls, 500);
  std::vector<long> positions = {1, 2, 3, 9, 33, 65, 120, 129, 150, 169, 257};
  for (const long from_end : {5, 15, 40}) positions.push_back(calls - from_end);
  for (const long share : {6, 8, 12, 16, 18, 21}) positions.push_back(calls * share / 24);
  for (const long n : positions) {
    const std::string fault = "memory:" + std::to_string(n) + ":12:for-good";
    const test::Outcome outcome = run(fault, "");
    EXPECT_TRUE(outcome.code == 2 || (outcome.code == 0 && n > calls / 2))
        << fault << ", code " << outcome.code;
    EXPECT_THAT(outcome.err, testing::StartsWith(outcome.code == 0 ? "" : "Fatal: ")) << fault;
    expect_old_or_whole(outcome.code, fault);
  }
}

TEST_F(OutputFailure, ASignalAtAnyMomentLeavesTheFolderAsItWas) {
  for (const char* kind : {"open", "write", "flush", "close", "rename"}) {
    const std::string path = std::string(kind) == "rename" ? "" : ".nvo_tmp_";
    const long calls = calls_of(kind, path);
    ASSERT_GT(calls, 0) << kind;
    for (const auto& [n, number] :
         {std::pair(1l, SIGINT), std::pair((calls + 1) / 2, SIGHUP), std::pair(calls, SIGTERM)}) {
      const std::string fault = kind + (":" + std::to_string(n)) + ":" + std::to_string(number) + ":signal";
      const test::Outcome outcome = run(fault, path);
      EXPECT_EQ(outcome.code, -number) << fault;
      expect_old_or_whole(std::string(kind) == "rename" ? 0 : 2, fault);
    }
  }
}

}  // namespace
}  // namespace nvo
