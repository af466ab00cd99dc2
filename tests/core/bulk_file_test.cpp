#include "core/platform/bulk_file.h"

#include <random>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace nvo::platform {
namespace {

// Pieces of all sizes, from memory that lies in its block as the file does and from memory that doesn't. The
// first file is so large that it is flushed while it grows.
TEST(BulkFile, HoldsWhatWasAppendedInOrder) {
  std::mt19937 random(5);
  BulkFile file;
  for (int round = 0; round < 20; ++round) {
    const test::TempDir dir;
    File created;
    ASSERT_EQ(created.create_exclusive(dir.file("bulk")), 0);
    file.prepare(round % 4 != 3);
    file.take_over(std::move(created));
    std::string expected;
    for (int piece = 0; piece < 12; ++piece) {
      const std::size_t sizes[] = {random() % 64, random() % (3 * kBulkBlock), kBulkBlock * (random() % 4),
                                   random() % 3'000'000};
      const std::size_t size = round == 0 ? (9 << 20) + 5 : sizes[random() % 4];
      const BulkMemory memory = allocate_bulk(size + kBulkBlock);
      std::uint8_t* const data =
          memory.get() + (random() % 2 == 0 ? expected.size() % kBulkBlock : random() % kBulkBlock);
      for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + piece + i / 251);
      ASSERT_EQ(file.append(data, size), 0);
      expected.append(reinterpret_cast<const char*>(data), size);
    }
    ASSERT_EQ(file.flush(), 0);
    ASSERT_EQ(file.close(), 0);
    EXPECT_TRUE(test::read_all(dir.file("bulk")) == expected) << round;
    EXPECT_TRUE(means_already_exists(created.create_exclusive(dir.file("bulk"))));
  }
}

}  // namespace
}  // namespace nvo::platform
