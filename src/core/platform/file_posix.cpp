#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/platform/file.h"
#include "core/platform/terminal.h"

namespace nvo::platform {
namespace {

constexpr std::size_t kMaxTransfer = std::size_t{1} << 30;  // one call takes less than 2 GiB

// The names are kept where a signal handler may read them: fixed storage, published by an atomic state.
constexpr int kMaxTemporaries = 64;
struct TemporarySlot {
  enum State : int { empty, claimed, live };
  std::atomic<int> state{empty};
  char path[PATH_MAX]{};
};
std::array<TemporarySlot, kMaxTemporaries> temporaries;

void remove_temporaries_and_end(int signal_number) {
  for (TemporarySlot& slot : temporaries)
    if (slot.state.load(std::memory_order_acquire) == TemporarySlot::live) ::unlink(slot.path);
  end_last_line();
  ::signal(signal_number, SIG_DFL);
  ::raise(signal_number);
}

int sync_directory(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  const int descriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int result = ::fsync(descriptor) == 0 ? 0 : errno;
  ::close(descriptor);
  return result;
}

}  // namespace

std::string error_text(int code) {
  return std::generic_category().message(code);
}
bool means_bad_alignment(int code) {
  return code == EINVAL;
}
bool means_already_exists(int code) {
  return code == EEXIST;
}
bool is_transient(int code) {
  return code == EBUSY || code == ETXTBSY;
}

File::File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    close();
    descriptor_ = std::exchange(other.descriptor_, -1);
  }
  return *this;
}

File::~File() {
  close();
}

int File::create_exclusive(const std::string& path) {
  close();
  descriptor_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  return descriptor_ >= 0 ? 0 : errno;
}

int File::write_some(const void* data, std::size_t size, std::size_t& written) {
  written = 0;
  for (;;) {
    const ssize_t result = ::write(descriptor_, data, size < kMaxTransfer ? size : kMaxTransfer);
    if (result >= 0) {
      written = static_cast<std::size_t>(result);
      return 0;
    }
    if (errno != EINTR) return errno;
  }
}

int File::write_all(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size != 0) {
    std::size_t written = 0;
    if (const int error = write_some(bytes, size, written)) return error;
    if (written == 0) return EIO;
    bytes += written;
    size -= written;
  }
  return 0;
}

bool File::set_direct(bool enabled) {
#ifdef O_DIRECT
  const int flags = ::fcntl(descriptor_, F_GETFL);
  if (flags < 0) return false;
  return ::fcntl(descriptor_, F_SETFL, enabled ? flags | O_DIRECT : flags & ~O_DIRECT) == 0;
#else
  return !enabled;
#endif
}

int File::flush() {
  return ::fsync(descriptor_) == 0 ? 0 : errno;
}

int File::close() {
  if (descriptor_ < 0) return 0;
  return ::close(std::exchange(descriptor_, -1)) == 0 ? 0 : errno;
}

int read_at(int descriptor, std::uint64_t offset, void* data, std::size_t size, std::size_t& read) noexcept {
  read = 0;
  while (read < size) {
    const ssize_t got = ::pread(descriptor, static_cast<char*>(data) + read,
                                std::min(size - read, kMaxTransfer), static_cast<off_t>(offset + read));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    read += static_cast<std::size_t>(got);
  }
  return 0;
}

int replace_file(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return errno;
  // The new name stands; a file system that cannot sync a folder must not turn that into a failure.
  sync_directory(to);
  return 0;
}

void remove_file(const std::string& path) noexcept {
  ::unlink(path.c_str());
}

TemporaryName::TemporaryName(const std::string& path) {
  if (path.size() >= PATH_MAX) return;
  for (int i = 0; i < kMaxTemporaries; ++i) {
    TemporarySlot& slot = temporaries[static_cast<std::size_t>(i)];
    int expected = TemporarySlot::empty;
    if (!slot.state.compare_exchange_strong(expected, TemporarySlot::claimed)) continue;
    std::memcpy(slot.path, path.c_str(), path.size() + 1);
    slot.state.store(TemporarySlot::live, std::memory_order_release);
    slot_ = i;
    return;
  }
}

TemporaryName::TemporaryName(TemporaryName&& other) noexcept : slot_(std::exchange(other.slot_, -1)) {}

TemporaryName& TemporaryName::operator=(TemporaryName&& other) noexcept {
  if (this != &other) {
    release();
    slot_ = std::exchange(other.slot_, -1);
  }
  return *this;
}

TemporaryName::~TemporaryName() {
  release();
}

void TemporaryName::release() noexcept {
  if (slot_ < 0) return;
  temporaries[static_cast<std::size_t>(slot_)].state.store(TemporarySlot::empty, std::memory_order_release);
  slot_ = -1;
}

void install_termination_cleanup() {
  struct sigaction action {};
  action.sa_handler = remove_temporaries_and_end;
  sigfillset(&action.sa_mask);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    struct sigaction old {};
    ::sigaction(number, nullptr, &old);
    if (old.sa_handler != SIG_IGN) ::sigaction(number, &action, nullptr);
  }
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a file size limit shows as a failed write instead
}

}  // namespace nvo::platform
