#pragma once

// What the tests of images share, with the headers that nearly all of them need.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/failure.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo::test {

using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Bytes = std::vector<std::uint8_t>;

/// Rows `y` .. `y + rows - 1` of an image.
inline Bytes rows_of(const Bytes& image, std::size_t row_bytes, std::size_t y, std::size_t rows) {
  const std::uint8_t* first = image.data() + y * row_bytes;
  return {first, first + rows * row_bytes};
}

class ImageTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& bytes) const {
    write_all(dir_.file(name), bytes);
    return dir_.file(name);
  }

  TempDir dir_;
  LogCapture log_;
  Bytes out_;  ///< for rows
  std::string error_;
};

}  // namespace nvo::test
