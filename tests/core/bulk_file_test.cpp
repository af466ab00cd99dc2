#include "core/platform/bulk_file.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace nvo::platform {
namespace {

// Pieces of all sizes, from memory that lies in its block as the file does and from memory that doesn't. The
// first file is so large that it is flushed while it grows.
TEST(BulkFile, HoldsWhatWasWrittenInAnyOrder) {
  std::mt19937 random(5);
  BulkFile file;
  for (int round = 0; round < 20; ++round) {
    const test::TempDir dir;
    File created;
    ASSERT_EQ(created.create_exclusive(dir.file("bulk")), 0);
    file.prepare(round % 4 != 3);
    file.take_over(std::move(created));
    std::string expected;
    std::vector<std::pair<std::uint64_t, std::string>> pieces;
    for (int piece = 0; piece < 12; ++piece) {
      const std::size_t sizes[] = {random() % 64, random() % (3 * kBulkBlock), kBulkBlock * (random() % 4),
                                   random() % 3'000'000};
      const std::size_t size = round == 0 ? (9 << 20) + 5 : sizes[random() % 4];
      const BulkMemory memory = allocate_bulk(size + kBulkBlock);
      std::uint8_t* const data =
          memory.get() + (random() % 2 == 0 ? expected.size() % kBulkBlock : random() % kBulkBlock);
      for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + piece + i / 251);
      pieces.push_back({expected.size(), std::string(reinterpret_cast<const char*>(data), size)});
      if (round % 2 == 0) {
        ASSERT_EQ(file.append(data, size), 0);
      }
      expected.append(reinterpret_cast<const char*>(data), size);
    }
    if (round % 4 == 1) std::ranges::shuffle(pieces, random);
    std::ranges::reverse(pieces);
    for (const auto& [offset, bytes] : pieces) {
      if (round % 2 != 0) {
        ASSERT_EQ(file.write_at(offset, bytes.data(), bytes.size()), 0);
      }
    }
    ASSERT_EQ(file.flush(), 0);
    ASSERT_EQ(file.close(), 0);
    EXPECT_TRUE(test::read_all(dir.file("bulk")) == expected) << round;
    EXPECT_TRUE(means_already_exists(created.create_exclusive(dir.file("bulk"))));
  }
}

}  // namespace
}  // namespace nvo::platform
