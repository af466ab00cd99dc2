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

bool PdfBackendMemo::is_first(const std::string& log_key) {
  const std::lock_guard lock(mutex_);
  return logged_.insert(log_key).second;
}

}  // namespace nvo
