#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace nvo::test {

/// Hands every seed of a folder to `parse`: as it is and, at each `step`-th byte, cut short there and with
/// that byte changed. Returns the number of seeds.
inline int replay_seeds(const std::string& folder, std::size_t step,
                        const std::function<void(const std::uint8_t* data, std::size_t size)>& parse) {
  int seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    SCOPED_TRACE(entry.path());
    std::string bytes = read_all(entry.path());
    const auto run = [&](std::size_t size) {
      parse(reinterpret_cast<const std::uint8_t*>(bytes.data()), size);
    };
    run(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); i += step) {
      run(i);
      const char original = bytes[i];
      for (const int change : {0x01, 0x80, 0xFF}) {
        bytes[i] = static_cast<char>(original ^ change);
        run(bytes.size());
      }
      bytes[i] = original;
    }
    ++seeds;
  }
  return seeds;
}

}  // namespace nvo::test
