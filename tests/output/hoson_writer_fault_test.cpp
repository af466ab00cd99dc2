#include <exception>

#include <gtest/gtest.h>

#include "output/hoson_writer.h"
#include "output/test_drops.h"
#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::fault_plan;

void write_two_strips(const std::string& path, const std::vector<DropMap>& maps) {
  HosonWriter writer({{0, 0}, {}, {}});
  writer.begin_stream_write(path, maps[0].width, maps[0].height);
  writer.write_dropmaps_strip(test::cut_rows(maps, 100, 200), 100);
  writer.write_dropmaps_strip(test::cut_rows(maps, 0, 100), 0);
  writer.end_stream_write();
}

// The n-th system call fails, for n = 1, 2, 3 ... until the run meets no fault.
void run_until_success(bool short_writes) {
  const std::vector<DropMap> maps = test::make_channels(100, 200, 5);
  const test::TempDir reference;
  write_two_strips(reference.file("a.prt"), maps);
  const std::string old_content = "old", new_content = test::read_all(reference.file("a.prt"));

  int failures = 0;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 100);
    const test::TempDir dir;
    const std::string target = dir.file("a.prt");
    fault_plan = {};
    test::write_all(target, old_content);

    fault_plan = {n, 0, short_writes};
    bool done = true;
    try {
      write_two_strips(target, maps);
    } catch (const std::exception&) {
      done = false;
      ++failures;
    }
    const bool met_fault = fault_plan.calls >= fault_plan.fail_at;
    fault_plan = {};

    EXPECT_EQ(test::read_all(target), done ? new_content : old_content) << "call " << n;
    EXPECT_EQ(dir.names(), std::vector<std::string>{"a.prt"}) << "call " << n;
    if (!met_fault) {
      EXPECT_TRUE(done);
      break;
    }
  }
  EXPECT_GE(failures, 6);  // three writes, flush, close and the replacement at least
}

TEST(HosonWriterFaults, TargetIsOldOrNewAndNothingElseIsLeft) {
  run_until_success(false);
}
TEST(HosonWriterFaults, ShortWritesAreFinishedOrReported) {
  run_until_success(true);
}

}  // namespace
}  // namespace nvo
