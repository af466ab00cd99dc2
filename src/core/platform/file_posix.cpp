#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/platform/file.h"
#include "core/platform/terminal.h"

namespace nvo::platform {
namespace {

constexpr std::size_t kMaxTransfer = std::size_t{1} << 30;  // one call takes less than 2 GiB

constexpr int kTerminationSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

/// A path in the form that system calls take. One that is too long for them in one piece, which the name of
/// a temporary file may make of a path that is not, is reached through its folder.
class ReachedPath {
 public:
  explicit ReachedPath(const char* path) noexcept : name_(path) {
    const char* const slash = std::strrchr(path, '/');
    if (std::strlen(path) < PATH_MAX || !slash || slash - path >= PATH_MAX) return;
    char folder[PATH_MAX];
    std::memcpy(folder, path, static_cast<std::size_t>(slash - path));
    folder[slash - path] = '\0';
    const int descriptor = ::open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return;
    folder_ = descriptor;
    name_ = slash + 1;
  }
  ~ReachedPath() {
    if (folder_ != AT_FDCWD) ::close(folder_);
  }
  ReachedPath(const ReachedPath&) = delete;
  ReachedPath& operator=(const ReachedPath&) = delete;

  bool is_whole() const noexcept { return folder_ == AT_FDCWD; }
  int folder() const noexcept { return folder_; }
  const char* name() const noexcept { return name_; }

 private:
  int folder_ = AT_FDCWD;
  const char* name_;
};

void unlink_reached(const char* path) noexcept {
  const ReachedPath reached(path);
  ::unlinkat(reached.folder(), reached.name(), 0);
}

// The names are kept where a signal handler may read them: fixed storage, published by an atomic state.
constexpr int kMaxTemporaries = 64;
struct TemporarySlot {
  enum State : int { empty, creating, live };
  std::atomic<int> state{empty};
  char path[PATH_MAX + NAME_MAX + 1]{};
};
std::array<TemporarySlot, kMaxTemporaries> temporaries;
std::atomic<bool> ending{false};

/// Keeps the thread from being the one that handles a termination signal.
class TerminationHeld {
 public:
  TerminationHeld() noexcept {
    sigset_t held;
    sigemptyset(&held);
    for (const int number : kTerminationSignals) sigaddset(&held, number);
    ::pthread_sigmask(SIG_BLOCK, &held, &before_);
  }
  ~TerminationHeld() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  TerminationHeld(const TerminationHeld&) = delete;
  TerminationHeld& operator=(const TerminationHeld&) = delete;

 private:
  sigset_t before_;
};

/// A slot with this path in the state `creating`, or -1 where all are taken.
int claim_slot(const std::string& path) noexcept {
  if (path.size() >= sizeof TemporarySlot::path) return -1;
  for (int i = 0; i < kMaxTemporaries; ++i) {
    TemporarySlot& slot = temporaries[static_cast<std::size_t>(i)];
    int expected = TemporarySlot::empty;
    if (!slot.state.compare_exchange_strong(expected, TemporarySlot::creating)) continue;
    // Whoever ends the process either sees the slot and waits for the file, or is seen here.
    while (ending) ::pause();
    std::memcpy(slot.path, path.c_str(), path.size() + 1);
    return i;
  }
  return -1;
}

/// Waits for a file that another thread is about to create; not for long, as its file system may be stuck.
void wait_for_creation(const TemporarySlot& slot) noexcept {
  constexpr int kMilliseconds = 2000;
  for (int i = 0; i < kMilliseconds && slot.state == TemporarySlot::creating; ++i) {
    const timespec pause{0, 1'000'000};
    ::nanosleep(&pause, nullptr);
  }
}

void remove_temporaries_and_end(int signal_number) {
  remove_live_temporaries();
  end_last_line();
  ::signal(signal_number, SIG_DFL);
  ::raise(signal_number);
}

/// Makes a name durable that stands already: so nothing here may fail for memory.
int sync_directory(const char* path) noexcept {
  const char* const slash = std::strrchr(path, '/');
  const std::size_t length = slash ? static_cast<std::size_t>(slash - path) + 1 : 0;
  char folder[PATH_MAX + 1] = ".";
  if (length > PATH_MAX) return ENAMETOOLONG;
  if (slash) std::memcpy(folder, path, length);
  const int descriptor = ::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int result = ::fsync(descriptor) == 0 ? 0 : errno;
  ::close(descriptor);
  return result;
}

}  // namespace

std::string error_text(int code) {
  return code == kNothingTaken ? "nothing was written" : std::generic_category().message(code);
}
bool means_bad_alignment(int code) {
  return code == EINVAL;
}
bool means_already_exists(int code) {
  return code == EEXIST;
}
bool means_not_found(int code) {
  return code == ENOENT || code == ENOTDIR;
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

int File::create_temporary(const std::string& path, TemporaryName& name) {
  close();
  name.release();
  const TerminationHeld held;
  const int slot = claim_slot(path);
  const ReachedPath reached(path.c_str());
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  descriptor_ = reached.is_whole() ? ::open(reached.name(), kFlags, 0666)
                                   : ::openat(reached.folder(), reached.name(), kFlags, 0666);
  const int error = descriptor_ >= 0 ? 0 : errno;
  if (error == 0) ::flock(descriptor_, LOCK_EX | LOCK_NB);
  if (slot >= 0) {
    temporaries[static_cast<std::size_t>(slot)].state =
        error == 0 ? TemporarySlot::live : TemporarySlot::empty;
    if (error == 0) name.slot_ = slot;
  }
  return error;
}

int File::open_append(const std::string& path) {
  close();
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  descriptor_ = ::open(path.c_str(), kFlags, 0666);
  return descriptor_ >= 0 ? 0 : errno;
}

void File::take_mode_of(const std::string& path) {
  constexpr mode_t kAccess = 0777;
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
    ::fchmod(descriptor_, status.st_mode & kAccess);
}

int File::seek(std::uint64_t offset) {
  return ::lseek(descriptor_, static_cast<off_t>(offset), SEEK_SET) >= 0 ? 0 : errno;
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
    if (written == 0) return kNothingTaken;
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
  const ReachedPath reached(from.c_str());
  if ((reached.is_whole() ? ::rename(from.c_str(), to.c_str())
                          : ::renameat(reached.folder(), reached.name(), AT_FDCWD, to.c_str())) != 0)
    return errno;
  // The new name stands; a file system that cannot sync a folder must not turn that into a failure.
  sync_directory(to.c_str());
  return 0;
}

int move_to_new_name(const std::string& from, const std::string& to) {
  const auto is_unsupported = [](int error) {
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EPERM || error == EMLINK;
  };
  {
    const ReachedPath reached(from.c_str());
    int error = 0;
    if (::renameat2(reached.folder(), reached.name(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0)
      error = errno;
    if (is_unsupported(error)) {
      error = ::linkat(reached.folder(), reached.name(), AT_FDCWD, to.c_str(), 0) == 0 ? 0 : errno;
      if (error == 0) ::unlinkat(reached.folder(), reached.name(), 0);
    }
    if (error == 0) sync_directory(to.c_str());
    if (!is_unsupported(error)) return error;
  }
  struct stat status {};
  if (::lstat(to.c_str(), &status) == 0) return EEXIST;
  return errno == ENOENT ? replace_file(from, to) : errno;
}

void remove_file(const std::string& path) noexcept {
  unlink_reached(path.c_str());
}

/// A process that has ended and that its parent hasn't asked for yet.
static bool has_ended(unsigned long process) {
  char path[40], status[256];
  static_cast<void>(std::snprintf(path, sizeof path, "/proc/%lu/stat", process));
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const ssize_t got = ::read(descriptor, status, sizeof status);
  ::close(descriptor);
  // The state stands behind the program's name, which may hold brackets itself.
  const std::string_view text(status, got > 0 ? static_cast<std::size_t>(got) : 0);
  const std::size_t name_end = text.rfind(") ");
  return name_end != std::string_view::npos && text.substr(name_end + 2).starts_with('Z');
}

bool may_be_alive(unsigned long process) {
  if (process == static_cast<unsigned long>(::getpid()) || has_ended(process)) return false;
  return process == 0 || process > INT_MAX || ::kill(static_cast<pid_t>(process), 0) == 0 || errno != ESRCH;
}

bool remove_if_unlocked(const std::string& path) noexcept {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) return false;
  struct stat status {};
  const bool removed = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
                       ::flock(descriptor, LOCK_SH | LOCK_NB) == 0 && ::unlink(path.c_str()) == 0;
  ::close(descriptor);
  return removed;
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

void remove_live_temporaries() noexcept {
  ending = true;
  for (TemporarySlot& slot : temporaries) {
    wait_for_creation(slot);
    if (slot.state == TemporarySlot::live) unlink_reached(slot.path);
  }
}

void install_termination_cleanup() {
  struct sigaction action {};
  action.sa_handler = remove_temporaries_and_end;
  sigfillset(&action.sa_mask);
  for (const int number : kTerminationSignals) {
    struct sigaction old {};
    ::sigaction(number, nullptr, &old);
    if (old.sa_handler != SIG_IGN) ::sigaction(number, &action, nullptr);
  }
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a file size limit shows as a failed write instead
}

}  // namespace nvo::platform
