#include <gtest/gtest.h>

#include "core/file_io.h"
#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::fault_plan;

// The n-th system call fails, for n = 1, 2, 3 ... until the write succeeds.
TEST(AtomicWriteFaults, TargetIsOldOrNewAndNothingElseIsLeft) {
  const std::string old_content = "old", new_content(100'000, 'n');
  for (const bool short_writes : {false, true}) {
    bool failed_somewhere = true;
    for (long n = 1; failed_somewhere; ++n) {
      ASSERT_LT(n, 100);
      const test::TempDir dir;
      const std::string target = dir.file("state.json");
      test::write_all(target, old_content);

      fault_plan = {n, 0, short_writes};
      std::string error;
      const bool done = write_file_atomic(target, new_content, &error);
      failed_somewhere = fault_plan.calls >= fault_plan.fail_at;
      fault_plan = {};

      EXPECT_EQ(test::read_all(target), done ? new_content : old_content) << "call " << n;
      EXPECT_EQ(dir.names(), std::vector<std::string>{"state.json"}) << "call " << n;
      EXPECT_EQ(done, error.empty()) << "call " << n << ": " << error;
      EXPECT_TRUE(done || failed_somewhere);
    }
  }
}

}  // namespace
}  // namespace nvo
