#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nvo {

/// Raw texts of the environment variables that tune the writer; nothing where a variable is not set.
struct WriterThreadEnv {
  std::optional<std::string> parallel_rows;  ///< NVO_RIP_PARALLEL_WRITER_ROWS
  std::optional<std::string> threads;        ///< NVO_RIP_WRITER_THREADS

  static WriterThreadEnv snapshot();
};

/// Workers that pack a strip of `rows` row cycles of `cycle_len` bytes on `hw` hardware threads; 1 to `rows`.
std::uint32_t writer_threads(std::uint32_t rows, std::uint32_t cycle_len, std::uint32_t hw,
                             const WriterThreadEnv& env);

}  // namespace nvo
