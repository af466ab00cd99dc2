#include "app/output_path.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace nvo {
namespace {

bool parent_created = false;

/// The path, or what is wrong.
std::string resolve(const std::string& input, const std::string& explicit_path, const RipSettings& rip = {},
                    PrintHead head = PrintHead::i3200) {
  JobSettings job;
  job.print_head = head;
  std::string path, error;
  const bool ok = resolve_output_path(input, explicit_path, rip, job, path, error, parent_created);
  return ok ? path : error;
}

TEST(OutputPath, StemsAreSafeForEveryFileSystem) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/in/My File.tif", "/in/My_File.prt"},
      {"CON.tif", "./CON_.prt"},
      {"lpt0.png", "./lpt0.prt"},
      {"LPT9.png", "./LPT9_.prt"},
      {"...tif", "./job.prt"},
      {"com12.tif", "./com12.prt"},
      {"nul.a.tif", "./nul.a_.prt"},
      {"a.b.tif", "./a.b.prt"},
      {"a . .tif", "./a.prt"},
      {"._..tif", "./job.prt"},
      {"noext", "./noext.prt"},
      {"a\"*:<>?\\|\x01\x7f.tif", "./a__________.prt"},
      {"\xC3\xA9t\xC3\xA9.tif", "./\xC3\xA9t\xC3\xA9.prt"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(resolve(input, ""), expected);
  EXPECT_EQ(resolve("/in/a.tif", "", {}, PrintHead::i1600), "/in/a.prn");
  EXPECT_EQ(resolve("/in/a.tif", "", {}, PrintHead::xp600), "/in/a.prt");
}

TEST(OutputPath, ExplicitTargetsAreCheckedHard) {
  const test::TempDir dir;
  test::write_all(dir.file("there.prt"), "x");
  std::filesystem::create_symlink("nowhere", dir.file("dangling.prt"));
  for (const char* name : {"there.prt", "", "dangling.prt"})
    EXPECT_EQ(resolve("a.tif", dir.file(name)), "Explicit output target already exists.") << name;
  EXPECT_EQ(resolve("a.tif", dir.file("there.prt/o.prt")), "Explicit output parent path is not a directory.");
  EXPECT_THAT(resolve("a.tif", dir.file("there.prt/sub/o.prt")),
              testing::StartsWith("Cannot create explicit output parent directory: "));
  EXPECT_EQ(resolve("a.tif", "not there yet.prt"), "not there yet.prt") << "without a folder";
  const std::string too_long(256, 'x');
  const std::pair<std::string, std::string> refused[] = {
      {dir.file("no/"), "Explicit output path names a folder, not a file: " + dir.file("no/")},
      {dir.file("no/.."), "Explicit output path names a folder, not a file: " + dir.file("no/..")},
      {dir.file("no/" + too_long),
       "Explicit output file name is too long (256 bytes, at most 255): " + dir.file("no/" + too_long)},
      {"no" + std::string(4094, '/') + "a",
       "Explicit output path is too long (4097 bytes, at most 4095): no" + std::string(4094, '/') + "a"},
  };
  for (const auto& [target, text] : refused) EXPECT_EQ(resolve("a.tif", target), text);
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "no"));
  EXPECT_EQ(resolve("a.tif", dir.file(too_long.substr(1))), dir.file(too_long.substr(1)));
  for (const bool is_new : {true, false}) {
    EXPECT_EQ(resolve("a.tif", dir.file("new/dir/o.prt")), dir.file("new/dir/o.prt"));
    EXPECT_EQ(parent_created, is_new);
    EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "new/dir"));
  }
}

TEST(OutputPath, CustomFolder) {
  const test::TempDir dir;
  test::write_all(dir.file("a.prt"), "older");
  RipSettings rip;
  const auto outcome = [&](const std::string& folder) {
    rip.custom_output_folder_path = folder;
    return resolve(dir.file("a.tif"), "", rip);
  };
  EXPECT_EQ(outcome(dir.file("ignored")), dir.file("a.prt")) << "a derived target may exist";
  std::filesystem::create_directory(dir.path() / "b.prt");
  EXPECT_EQ(resolve(dir.file("b.tif"), ""), "Output target is a folder: " + dir.file("b.prt"));
  EXPECT_THAT(resolve(dir.file(std::string(252, 'x') + ".q"), ""),
              testing::StartsWith("Output file name is too long (256 bytes, at most 255): "));
  rip.custom_output_folder_enabled = true;
  EXPECT_EQ(outcome(std::string("out\0side", 8)),
            "Custom output folder path is invalid: it holds a NUL byte");
  EXPECT_EQ(outcome(""), "Custom output folder is enabled, but path is empty.");
  EXPECT_EQ(outcome(dir.file("a.prt")), "Custom output folder path is not a directory.");
  EXPECT_THAT(outcome(dir.file("a.prt/below")), testing::StartsWith("Cannot create custom output folder: "));
  EXPECT_EQ(outcome(dir.file("out/deep")), dir.file("out/deep/a.prt"));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "out/deep"));
}

}  // namespace
}  // namespace nvo
