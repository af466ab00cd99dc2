#include "core/atomic_file.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <thread>
#include <utility>

#include "core/fnv1a.h"
#include "core/platform/clock.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

constexpr int kMaxReplaceAttempts = 32;
constexpr auto kReplaceRetryDelay = std::chrono::milliseconds(2);

const char* name_of(WriteFailure::Step step) {
  constexpr const char* kNames[] = {"create", "write", "flush", "close", "put in place"};
  return kNames[static_cast<std::size_t>(step)];
}

std::string unique_token() {
  static std::atomic<std::uint64_t> counter{0};
  const std::uint64_t now = platform::monotonic_nanoseconds();
  return std::to_string(platform::process_id()) + "." + std::to_string(now / 1'000'000) + "." +
         std::to_string(now) + "." + std::to_string(counter.fetch_add(1));
}

}  // namespace

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

std::string unique_temp_path(const std::string& target, int attempt) {
  return path_beside(target, ".tmp." + unique_token() + "." + std::to_string(attempt));
}

int create_temp(const std::string& target, const TemporaryNames& names, TempFile& temp) {
  int error = 0;
  for (int attempt = 0; attempt < names.attempts; ++attempt) {
    temp.path = names.path(target, attempt);
    error = temp.handle.create_temporary(temp.path, temp.name);
    if (error == 0 || !(names.despite_errors || platform::means_already_exists(error))) break;
  }
  return error;
}

int replace_patiently(const std::string& temp, const std::string& target) {
  int error = 0;
  for (int attempt = 0; attempt < kMaxReplaceAttempts; ++attempt) {
    error = platform::replace_file(temp, target);
    if (error == 0 || !platform::is_transient(error)) break;
    std::this_thread::sleep_for(kReplaceRetryDelay);
  }
  return error;
}

std::string WriteFailure::text() const {
  return std::string("cannot ") + name_of(step) + " '" + path + "' (" + std::to_string(bytes) +
         " bytes wanted): " + platform::error_text(error);
}

std::optional<WriteFailure> AtomicFile::begin(const std::string& target, std::uint64_t bytes,
                                              const TemporaryNames& names) {
  give_up();
  target_ = target;
  bytes_ = bytes;
  written_ = 0;
  file_.prepare(bytes >= platform::kBulkBlock);  // what may throw, before the file is there
  TempFile temp;
  if (const int error = create_temp(target, names, temp))
    return WriteFailure{WriteFailure::Step::create, std::move(temp.path), bytes, error};
  temp_ = std::move(temp);
  file_.take_over(std::move(temp_.handle));
  return std::nullopt;
}

std::optional<WriteFailure> AtomicFile::append(const void* data, std::size_t size) {
  return after_write(size, file_.append(data, size));
}

std::optional<WriteFailure> AtomicFile::write_at(std::uint64_t offset, const void* data, std::size_t size) {
  return after_write(size, file_.write_at(offset, data, size));
}

std::optional<WriteFailure> AtomicFile::after_write(std::size_t size, int error) {
  if (error) return fail(WriteFailure::Step::write, size, error);
  written_ += size;
  bytes_ = std::max(bytes_, written_);
  return std::nullopt;
}

std::optional<WriteFailure> AtomicFile::commit(Existing existing) {
  if (existing == Existing::replace) file_.take_mode_of(target_);
  if (const int error = file_.flush()) return fail(WriteFailure::Step::flush, bytes_, error);
  if (const int error = file_.close()) return fail(WriteFailure::Step::close, bytes_, error);
  const int error = existing == Existing::replace ? replace_patiently(temp_.path, target_)
                                                  : platform::move_to_new_name(temp_.path, target_);
  if (error) return fail(WriteFailure::Step::replace, bytes_, error);
  temp_ = {};
  return std::nullopt;
}

WriteFailure AtomicFile::fail(WriteFailure::Step step, std::uint64_t bytes, int error) {
  WriteFailure failure{step, step == WriteFailure::Step::replace ? target_ : temp_.path, bytes, error};
  give_up();
  return failure;
}

void AtomicFile::give_up() noexcept {
  file_.close();
  if (!temp_.path.empty()) platform::remove_file(temp_.path);
  temp_ = {};
}

}  // namespace nvo
