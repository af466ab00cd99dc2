#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nvo {

/// The update check's own record: one JSON object a line, appended to `logs/update_trace.log` in the user's
/// settings folder, which has to be a regular file and no link. Any thread may write. A line that can't be
/// written is lost without a word, so that tracing never disturbs a check.
class UpdateTrace {
 public:
  using Pairs = std::vector<std::pair<std::string_view, std::string>>;

  /// Writes the time, the stage and then the pairs in their order.
  void write(std::string_view stage, const Pairs& pairs) noexcept;

 private:
  void append(std::string_view stage, const Pairs& pairs);

  std::mutex mutex_;
  std::filesystem::path path_;  ///< known from the first line on
};

}  // namespace nvo
