#include "app/output_path.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace nvo {
namespace {

struct Resolved {
  bool ok = false, parent_created = false;
  std::string path, error;
};

Resolved resolve(const std::string& input, const std::string& explicit_path, const RipSettings& rip = {},
                 PrintHead head = PrintHead::i3200) {
  JobSettings job;
  job.print_head = head;
  Resolved r;
  r.ok = resolve_output_path(input, explicit_path, rip, job, r.path, r.error, r.parent_created);
  return r;
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
      {"a\"*:<>?\\|\x01\x7f.tif", "./a__________.prt"},
      {"\xC3\xA9t\xC3\xA9.tif", "./\xC3\xA9t\xC3\xA9.prt"},
      {"noext", "./noext.prt"},
      {" .tif", "./job.prt"},
  };
  for (const auto& [input, expected] : cases) {
    const Resolved r = resolve(input, "");
    EXPECT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.path, expected) << input;
  }
  EXPECT_EQ(resolve("/in/a.tif", "", {}, PrintHead::i1600).path, "/in/a.prn");
  EXPECT_EQ(resolve("/in/a.tif", "", {}, PrintHead::xp600).path, "/in/a.prt");
}

TEST(OutputPath, ExplicitTargetsAreCheckedHard) {
  const test::TempDir dir;
  test::write_all(dir.file("there.prt"), "x");
  std::filesystem::create_symlink("nowhere", dir.file("dangling.prt"));
  EXPECT_EQ(resolve("a.tif", dir.file("there.prt")).error, "Explicit output target already exists.");
  EXPECT_EQ(resolve("a.tif", dir.path().string()).error, "Explicit output target already exists.");
  EXPECT_EQ(resolve("a.tif", dir.file("dangling.prt")).error, "Explicit output target already exists.");
  EXPECT_EQ(resolve("a.tif", dir.file("there.prt/o.prt")).error,
            "Explicit output parent path is not a directory.");
  const Resolved impossible = resolve("a.tif", dir.file("there.prt/sub/o.prt"));
  EXPECT_EQ(impossible.error.rfind("Cannot create explicit output parent directory: ", 0), 0u)
      << impossible.error;

  const Resolved made = resolve("a.tif", dir.file("new/dir/o.prt"));
  EXPECT_TRUE(made.ok && made.parent_created);
  EXPECT_EQ(made.path, dir.file("new/dir/o.prt"));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "new/dir"));
  EXPECT_FALSE(resolve("a.tif", dir.file("new/dir/o.prt")).parent_created);
}

TEST(OutputPath, CustomFolder) {
  const test::TempDir dir;
  test::write_all(dir.file("file"), "x");
  RipSettings rip;
  rip.custom_output_folder_enabled = true;
  EXPECT_EQ(resolve("a.tif", "", rip).error, "Custom output folder is enabled, but path is empty.");
  rip.custom_output_folder_path = dir.file("file");
  EXPECT_EQ(resolve("a.tif", "", rip).error, "Custom output folder path is not a directory.");
  rip.custom_output_folder_path = dir.file("file/below");
  EXPECT_EQ(resolve("a.tif", "", rip).error.rfind("Cannot create custom output folder: ", 0), 0u);
  rip.custom_output_folder_path = dir.file("out/deep");
  test::write_all(dir.file("a.prt"), "older");
  EXPECT_EQ(resolve(dir.file("a.tif"), "", rip).path, dir.file("out/deep/a.prt"));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "out/deep"));
  rip.custom_output_folder_enabled = false;
  EXPECT_TRUE(resolve(dir.file("a.tif"), "", rip).ok) << "a derived target may exist";
}

}  // namespace
}  // namespace nvo
