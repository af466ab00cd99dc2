#include "image/content_hash.h"

#include "image/image_test.h"

namespace nvo::test {
namespace {

std::string sample_content(std::size_t size) {
  std::string content;
  for (std::size_t i = 0; i < size; ++i) content.push_back(static_cast<char>((i * i >> 5) + i));
  return content;
}

TEST(ContentHash, SamplesHeadAndTail) {
  // From an independent implementation.
  const struct {
    std::size_t size;
    const char* hash;
  } cases[] = {
      {0, "47fe0d7eaf8e51e3"},      {1, "4f987be6ba3a2ea6"},     {65535, "87309166c612a54c"},
      {65536, "cb509e607adbebaa"},  {65537, "90c19958b5fb4dfb"}, {131072, "a25354b72580c571"},
      {200000, "0404b81d3edc2e87"},
  };
  const TempDir dir;
  const std::string path = dir.file("a");
  for (const auto& c : cases) {
    write_all(path, sample_content(c.size));
    std::string hash;
    ASSERT_TRUE(content_hash(path, hash, nullptr));
    EXPECT_EQ(hash, c.hash) << c.size << " bytes";
  }
}

TEST(ContentHash, FailsWithoutAFile) {
  const TempDir dir;
  std::string hash, error;
  for (const std::string& path : {""s, dir.file("missing"), dir.path().string()}) {
    EXPECT_FALSE(content_hash(path, hash, &error) || fast_content_hash(path, 1, hash, nullptr)) << path;
    EXPECT_NE(std::exchange(error, ""), "") << path;
  }
}

}  // namespace
}  // namespace nvo::test
