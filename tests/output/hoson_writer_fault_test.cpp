#include <gtest/gtest.h>

#include "output/hoson_writer.h"
#include "output/test_drops.h"
#include "support/failure.h"
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

// The n-th system call fails, or writes a part first, for n = 1, 2, 3 ... until the run meets no fault.
TEST(HosonWriterFaults, TargetIsOldOrNewAndNothingElseIsLeft) {
  const std::vector<DropMap> maps = test::make_channels(100, 200, 5);
  const test::TempDir dir;
  const std::string target = dir.file("a.prt");
  write_two_strips(target, maps);
  const std::string new_content = test::read_all(target);

  for (const bool short_writes : {false, true}) {
    int failures = 0;
    bool met_fault = true;
    for (long n = 1; met_fault; ++n) {
      ASSERT_LT(n, 100);
      test::write_all(target, "old");
      fault_plan = {n, 0, short_writes};
      const bool done = test::failure_of([&] { write_two_strips(target, maps); }).empty();
      met_fault = fault_plan.calls >= fault_plan.fail_at;
      fault_plan = {};
      if (!done) ++failures;
      EXPECT_TRUE(done || met_fault);
      EXPECT_EQ(test::read_all(target), done ? new_content : "old") << "call " << n;
      EXPECT_EQ(dir.names(), std::vector<std::string>{"a.prt"}) << "call " << n;
    }
    EXPECT_GE(failures, 6);  // three writes, flush, close and the replacement at least
  }
}

}  // namespace
}  // namespace nvo
