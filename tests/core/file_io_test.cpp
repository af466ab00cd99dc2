#include "core/file_io.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/text.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

TEST(ReadFileBounded, CapMissingAndFolder) {
  const test::TempDir dir;
  const std::string path = dir.file("a.bin");
  test::write_all(path, "12345");
  const std::string folder = dir.path().string();
  const std::string pipe = dir.file("pipe"), circle = dir.file("circle");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::filesystem::create_symlink("circle", circle);
  const std::tuple<std::string, std::uint64_t, bool, bool, std::string, std::string> cases[] = {
      {path, 5, true, false, "12345", ""},
      {path, 0, true, false, "12345", ""},
      {path, 4, false, false, "", "File exceeds size cap (5 bytes > 4): " + path},
      {dir.file("none"), 4, false, true, "", ""},
      {path + "/below_a_file", 4, false, true, "", ""},
      {folder, 0, false, false, "", "Cannot open file: " + folder},
      {pipe, 0, false, false, "", "Cannot determine file size: Operation not supported"},
      {circle, 0, false, true, "", ""},
  };
  for (const auto& [name, cap, ok, is_missing, content, text] : cases) {
    std::string out = "stale", error = "stale";
    bool missing = !is_missing;
    EXPECT_EQ(read_file_bounded(name, cap, out, &error, &missing), ok) << name;
    EXPECT_EQ(std::tuple(out, error, missing), std::tuple(content, text, is_missing)) << name;
    EXPECT_EQ(read_file_bounded(name, cap, out, nullptr, nullptr), ok) << "without texts";
    EXPECT_EQ(path_error(name), name == circle ? ELOOP : 0) << name;
  }
}

/// As long as names may be; of letters of two bytes too, which are not cut apart.
std::vector<std::string> long_names() {
  std::string cyrillic;
  for (int i = 0; i < 127; ++i) cyrillic += "\xD0\x96";
  return {std::string(255, 'x'), cyrillic, "a" + cyrillic};
}

TEST(WriteFileAtomic, MakesFoldersReplacesAndWritesEmptyFiles) {
  const test::TempDir dir;
  const std::string path = dir.file("new/deep/state.json");
  std::string error;
  for (const std::string& content : {std::string("first"), std::string(3'000'000, 'x'), std::string()}) {
    ASSERT_TRUE(write_file_atomic(path, content, &error)) << error;
    EXPECT_EQ(test::read_all(path), content);
  }
  for (const std::string& name : long_names()) {
    EXPECT_TRUE(write_file_atomic(dir.file(name), name, &error)) << error;
    EXPECT_EQ(test::read_all(dir.file(name)), name);
    EXPECT_TRUE(is_valid_utf8(path_beside(name, ".tmp")));
    ::chmod(dir.file(name).c_str(), 0640);
    EXPECT_TRUE(write_file_atomic(dir.file(name), "", &error)) << error;
    EXPECT_EQ(std::filesystem::status(dir.file(name)).permissions(), std::filesystem::perms(0640));
    std::filesystem::remove(dir.file(name));
  }
  test::write_all(dir.file("file"), "");
  EXPECT_FALSE(write_file_atomic(dir.file("file/below"), "x", &error));
  EXPECT_EQ(error.rfind("Cannot create parent directory: ", 0), 0u) << error;
  EXPECT_FALSE(write_file_atomic(dir.path().string(), "x", &error)) << "the target is a folder";
  EXPECT_EQ(error.rfind("Cannot atomically replace file: ", 0), 0u) << error;
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"file", "new"}));
}

TEST(WriteFileAtomic, WritersSideBySideLeaveOneWholeFile) {
  const test::TempDir dir;
  const std::string path = dir.file("shared");
  std::vector<std::thread> writers;
  for (char c = 'a'; c < 'i'; ++c)
    writers.emplace_back([&, c] {
      for (int i = 0; i < 5; ++i) EXPECT_TRUE(write_file_atomic(path, std::string(20'000, c), nullptr));
    });
  for (std::thread& writer : writers) writer.join();
  const std::string content = test::read_all(path);
  EXPECT_EQ(content, std::string(20'000, content.at(0)));
  EXPECT_EQ(dir.names(), std::vector<std::string>{"shared"});
}

TEST(TerminationCleanup, SignalRemovesLiveTemporaryFilesOnly) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    const test::TempDir dir;
    const auto be_ended = [&] {
      platform::install_termination_cleanup();
      TempFile live = create_unique_temp(dir.file("print"), nullptr);
      TempFile kept = create_unique_temp(dir.file("kept"), nullptr);
      kept.name.release();
      ::raise(number);
    };
    EXPECT_EXIT(be_ended(), testing::KilledBySignal(number), "");
    ASSERT_EQ(dir.names().size(), 1u);
    EXPECT_EQ(dir.names()[0].rfind("kept.tmp.", 0), 0u);
  }
}

}  // namespace
}  // namespace nvo
