#include "image/pdf/pdf_backend_memo.h"

namespace nvo {

bool PdfBackendMemo::has_failed(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  return failed_.contains(key);
}

bool PdfBackendMemo::record_failure(const std::string& key) {
  const std::lock_guard lock(mutex_);
  return failed_.insert(key).second;
}

std::optional<std::string> PdfBackendMemo::timeout(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = timeouts_.find(key);
  return found == timeouts_.end() ? std::nullopt : std::optional(found->second);
}

void PdfBackendMemo::record_timeout(const std::string& key, const std::string& text) {
  const std::lock_guard lock(mutex_);
  timeouts_.emplace(key, text);
}

bool PdfBackendMemo::is_first(const std::string& log_key) {
  const std::lock_guard lock(mutex_);
  return logged_.insert(log_key).second;
}

}  // namespace nvo
