#include "core/file_io.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>
#include <thread>

#include <nlohmann/json.hpp>

#include "core/fnv1a.h"
#include "core/machine_failure.h"
#include "core/platform/clock.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

constexpr int kMaxTempNames = 128;
constexpr int kMaxReplaceAttempts = 32;
constexpr auto kReplaceRetryDelay = std::chrono::milliseconds(2);
constexpr std::size_t kMaxWritePiece = 0xFFFFFFFF;

template <class... Pieces>
bool fail(std::string* error, const Pieces&... pieces) {
  if (error) {
    error->clear();
    (error->append(pieces), ...);
  }
  return false;
}

bool read_existing(const std::string& path, std::uint64_t max_bytes, std::string& out, std::string* error,
                   bool& missing) {
  platform::PathStatus status;
  if (const int code = platform::path_status(path, status)) {
    if (!platform::tells_of_path(code)) fail_on_file("look at", path, code);
    missing = true;
    return false;
  }
  if (!status.is_regular && !status.is_folder)  // a folder has no size here; opening it fails below
    return fail(error,
                "Cannot determine file size: ", std::make_error_code(std::errc::not_supported).message());
  if (max_bytes != 0 && status.size > max_bytes)
    return fail(error, "File exceeds size cap (", std::to_string(status.size), " bytes > ",
                std::to_string(max_bytes), "): ", path);

  platform::InputFile file;
  if (const int code = file.open(path)) {
    if (!platform::tells_of_path(code)) fail_on_file("open", path, code);
    return fail(error, "Cannot open file: ", path);
  }
  out.resize(status.size);
  std::size_t count = 0;
  if (const int code = file.read_at(0, out.data(), out.size(), count)) fail_on_file("read", path, code);
  if (count == out.size()) return true;
  out.clear();
  return fail(error, "Short read while reading file: ", path);
}

std::string unique_token() {
  static std::atomic<std::uint64_t> counter{0};
  const std::uint64_t now = platform::monotonic_nanoseconds();
  return std::to_string(platform::process_id()) + "." + std::to_string(now / 1'000'000) + "." +
         std::to_string(now) + "." + std::to_string(counter.fetch_add(1));
}

int write_content(platform::File& file, std::string_view content, bool& stalled) {
  while (!content.empty()) {
    std::size_t written = 0;
    if (const int code = file.write_some(content.data(), std::min(content.size(), kMaxWritePiece), written))
      return code;
    if (written == 0) {
      stalled = true;
      return EIO;
    }
    content.remove_prefix(written);
  }
  return 0;
}

bool write_and_replace(TempFile& temp, const std::string& target, std::string_view content,
                       std::string* error) {
  bool stalled = false;
  if (const int code = write_content(temp.handle, content, stalled)) {
    return stalled ? fail(error, "Short write to temp file for atomic write.")
                   : fail(error, "Cannot write temp file for atomic write: ", platform::error_text(code));
  }
  temp.handle.take_mode_of(target);
  if (const int code = temp.handle.flush())
    return fail(error, "Cannot commit temp file for atomic write: ", platform::error_text(code));
  if (const int code = temp.handle.close())
    return fail(error, "Cannot close temp file for atomic write: ", platform::error_text(code));
  return atomic_replace(temp.path, target, error);
}

}  // namespace

bool read_file_bounded(const std::string& path, std::uint64_t max_bytes, std::string& out, std::string* error,
                       bool* missing) {
  out.clear();
  if (error) error->clear();
  bool absent = false;
  bool done = false;
  try {
    done = read_existing(path, max_bytes, out, error, absent);
  } catch (const std::exception& e) {
    out.clear();
    rethrow_machine_failure();
    fail(error, e.what());
  } catch (...) {
    out.clear();
    fail(error, "Unknown bounded file read error.");
  }
  if (missing) *missing = absent;
  return done;
}

int path_error(const std::string& path) {
  return platform::path_error(path);
}

bool read_json_bounded(const std::string& path, std::uint64_t max_bytes, nlohmann::json& json,
                       std::string* error, bool* missing) {
  json = nullptr;
  std::string text;
  if (!read_file_bounded(path, max_bytes, text, error, missing)) return false;
  auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return fail(error, "Cannot parse JSON: ", path);
  json = std::move(parsed);
  return true;
}

bool write_file_atomic(const std::string& path, std::string_view content, std::string* error) {
  if (error) error->clear();
  const fs::path parent = platform::to_path(path).parent_path();
  std::error_code code;
  if (!parent.empty() && !fs::create_directories(parent, code) && code)
    return fail(error, "Cannot create parent directory: ", code.message());

  TempFile temp = create_unique_temp(path, error);
  if (!temp.handle.is_open()) return false;
  bool done = false;
  try {
    done = write_and_replace(temp, path, content, error);
  } catch (...) {  // no memory for the error's text
    platform::remove_file(temp.path);
    throw;
  }
  temp.handle.close();
  if (!done) platform::remove_file(temp.path);
  return done;
}

std::string path_beside(const std::string& target, std::string_view ending) {
  const std::size_t slash = target.rfind('/');
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  const std::string_view name = std::string_view(target).substr(begin);
  const std::size_t room = platform::kMaxNameBytes - kLongestEnding;
  if (name.size() <= room) return target + std::string(ending);
  char hash[2 + 2 * sizeof(std::uint64_t)];
  std::snprintf(hash, sizeof hash, "~%016llx",
                static_cast<unsigned long long>(fnv1a(name.data(), name.size(), kFnvOffsetBasis)));
  std::size_t kept = room - (sizeof hash - 1);
  while (kept > 0 && (static_cast<unsigned char>(name[kept]) & 0xC0) == 0x80) --kept;  // whole letters
  return target.substr(0, begin + kept).append(hash).append(ending);
}

TempFile create_unique_temp(const std::string& target, std::string* error) {
  int code = 0;
  for (int n = 0; n < kMaxTempNames; ++n) {
    TempFile temp;
    temp.path = path_beside(target, ".tmp." + unique_token() + "." + std::to_string(n));
    code = temp.handle.create_temporary(temp.path, temp.name);
    if (code == 0) return temp;
    if (!platform::means_already_exists(code)) break;
  }
  fail(error, "Cannot create unique temp file for atomic write: ", platform::error_text(code));
  return {};
}

bool atomic_replace(const std::string& temp, const std::string& target, std::string* error) {
  int code = 0;
  for (int attempt = 0; attempt < kMaxReplaceAttempts; ++attempt) {
    code = platform::replace_file(temp, target);
    if (code == 0) return true;
    if (!platform::is_transient(code)) break;
    std::this_thread::sleep_for(kReplaceRetryDelay);
  }
  return fail(error, "Cannot atomically replace file: ", platform::error_text(code));
}

}  // namespace nvo
