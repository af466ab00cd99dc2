#include "compose/content_signature.h"

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "core/platform/paths.h"
#include "image/content_hash.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

/// The length in front keeps texts with separators in them apart.
void append_text(std::string& key, std::string_view name, std::string_view text) {
  key.append(name).append("=").append(std::to_string(text.size())).append(":").append(text).append("|");
}

template <class Number>
void append_number(std::string& key, std::string_view name, Number value) {
  key.append(name).append("=").append(std::to_string(value)).append("|");
}

fs::path canonical_as_far_as_possible(const fs::path& path) {
  std::error_code error;
  const fs::path canonical = fs::weakly_canonical(path, error);
  return error ? path : canonical;
}

}  // namespace

ContentSignature make_content_signature(const std::string& path) {
  ContentSignature signature;
  std::string& key = signature.key;
  const fs::path file = canonical_as_far_as_possible(platform::to_path(path));
  const std::string canonical_path = platform::to_utf8(file);
  append_text(key, "path", canonical_path);

  std::error_code error;
  const fs::file_status status = fs::status(file, error);
  if (status.type() == fs::file_type::not_found) {
    append_text(key, "missing", "1");
    return signature;
  }
  if (error) {
    append_text(key, "probe_error", error.message());
    return signature;
  }
  const std::uint64_t size = fs::file_size(file, error);
  if (error) {
    append_text(key, "size_error", error.message());
    return signature;
  }
  const auto modified = fs::last_write_time(file, error);
  if (error) {
    append_text(key, "mtime_error", error.message());
    return signature;
  }
  append_number(key, "size", size);
  append_number(key, "mtime", static_cast<std::int64_t>(modified.time_since_epoch().count()));

  std::string hash;
  std::string hash_error;
  if (fast_content_hash(canonical_path, size, hash, &hash_error)) {
    append_text(key, "fast_sig", hash);
  } else {
    append_text(key, "fast_sig_unavailable", hash_error);
  }
  signature.valid = true;
  return signature;
}

}  // namespace nvo
