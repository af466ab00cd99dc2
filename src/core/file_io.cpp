#include "core/file_io.h"

#include <exception>
#include <filesystem>
#include <optional>
#include <system_error>

#include <nlohmann/json.hpp>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

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

/// Of each step of a write, how its error begins.
constexpr const char* kStepErrors[] = {
    "Cannot create unique temp file for atomic write: ", "Cannot write temp file for atomic write: ",
    "Cannot commit temp file for atomic write: ", "Cannot close temp file for atomic write: ",
    "Cannot atomically replace file: "};
constexpr const char* kShortWrite = "Short write to temp file for atomic write.";

bool fail_step(WriteFailure::Step step, int code, std::string* error) {
  if (code == platform::kNothingTaken) return fail(error, kShortWrite);
  return fail(error, kStepErrors[static_cast<std::size_t>(step)], platform::error_text(code));
}

std::optional<WriteFailure> write_whole(const std::string& path, std::string_view content) {
  AtomicFile file;
  if (auto failure = file.begin(path, content.size())) return failure;
  if (auto failure = file.append(content.data(), content.size())) return failure;
  return file.commit();
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
  if (!parent.empty() && !fs::create_directories(parent, code) && code) {
    log_error("Atomic write: cannot make the folder for '", path, "': ", code.message());
    return fail(error, "Cannot create parent directory: ", code.message());
  }
  const std::optional<WriteFailure> failure = write_whole(path, content);
  if (!failure) return true;
  log_error("Atomic write: ", failure->text());
  return fail_step(failure->step, failure->error, error);
}

TempFile create_unique_temp(const std::string& target, std::string* error) {
  TempFile temp;
  const int code = create_temp(target, kUniqueNames, temp);
  if (code == 0) return temp;
  fail_step(WriteFailure::Step::create, code, error);
  return {};
}

bool atomic_replace(const std::string& temp, const std::string& target, std::string* error) {
  const int code = replace_patiently(temp, target);
  return code == 0 || fail_step(WriteFailure::Step::replace, code, error);
}

}  // namespace nvo
