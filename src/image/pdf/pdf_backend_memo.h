#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace nvo {

/// What the choice between the back-ends remembers for the life of the process. Any thread may call it.
class PdfBackendMemo {
 public:
  /// Did PDFium fail on this key before?
  bool has_failed(const std::string& key) const;
  /// Records a failure of PDFium; true when none of this key has been logged yet.
  bool record_failure(const std::string& key);
  /// Why rendering this key ran out of time, if it has.
  std::optional<std::string> timeout(const std::string& key) const;
  void record_timeout(const std::string& key, const std::string& text);
  /// True the first time that a log line of this key comes up.
  bool is_first(const std::string& log_key);

 private:
  mutable std::mutex mutex_;
  std::unordered_set<std::string> failed_, logged_;
  std::unordered_map<std::string, std::string> timeouts_;
};

}  // namespace nvo
