#include <gtest/gtest.h>

#include "core/file_io.h"
#include "core/platform/bulk_file.h"
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

// So many bytes that a flush runs while more are appended; its failure must not get lost.
TEST(BulkFileFaults, EveryFailureIsTold) {
  constexpr std::size_t kPiece = 33 << 20;
  const platform::BulkMemory bytes = platform::allocate_bulk(kPiece);
  bool failed_somewhere = true;
  for (long n = 1; failed_somewhere; ++n) {
    ASSERT_LT(n, 100);
    const test::TempDir dir;
    fault_plan = {n, 0, false};
    platform::BulkFile file;
    platform::File created;
    int error = created.create_exclusive(dir.file("bulk"));
    file.prepare();
    file.take_over(std::move(created));
    for (int piece = 0; piece < 3 && !error; ++piece) error = file.append(bytes.get(), kPiece);
    if (!error) error = file.flush();
    if (const int closed = file.close(); !error) error = closed;
    failed_somewhere = fault_plan.calls >= fault_plan.fail_at;
    fault_plan = {};
    EXPECT_EQ(error != 0, failed_somewhere) << "call " << n;
  }
}

}  // namespace
}  // namespace nvo
