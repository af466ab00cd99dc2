#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/platform/terminal.h"

namespace nvo::platform {
namespace {

enum class Line : int {
  none,
  unfinished,
  in_writing,
  ended,
  ended_and_written,  ///< it was in writing when it was ended, and that is done
};
std::atomic<Line> line{Line::none};
static_assert(std::atomic<Line>::is_always_lock_free, "a signal handler uses it");

/// Waits for a text that another thread is writing; not for long, as it may be this one that the signal
/// interrupted, or a terminal that takes no more.
void wait_for_writer() noexcept {
  constexpr int kMilliseconds = 50;
  for (int i = 0; i < kMilliseconds && line.load() == Line::ended; ++i) {
    const timespec pause{0, 1'000'000};
    ::nanosleep(&pause, nullptr);
  }
}

/// Collects bytes for standard error without memory of its own.
class ErrorBytes {
 public:
  ~ErrorBytes() { flush(); }
  void put(char c) noexcept {
    if (size_ == bytes_.size()) flush();
    bytes_[size_++] = c;
  }

 private:
  void flush() noexcept {
    for (std::size_t done = 0; done < size_;) {
      const ssize_t written = ::write(STDERR_FILENO, bytes_.data() + done, size_ - done);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) break;
      done += static_cast<std::size_t>(written);
    }
    size_ = 0;
  }

  std::array<char, 1024> bytes_;
  std::size_t size_ = 0;
};

}  // namespace

void open_standard_streams() noexcept {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) >= 0 || errno != EBADF) continue;
    // Open in the other direction, so that nobody takes what is lost for written. The lowest free number is
    // that of the stream.
    ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

bool standard_outputs_are_one() noexcept {
  struct stat out {
  }, err{};
  return ::fstat(STDOUT_FILENO, &out) == 0 && ::fstat(STDERR_FILENO, &err) == 0 && out.st_dev == err.st_dev &&
         out.st_ino == err.st_ino;
}

void write_error_line(const char* prefix, const char* text) noexcept {
  constexpr char kDigits[] = "0123456789ABCDEF";
  ErrorBytes bytes;
  for (; *prefix; ++prefix) bytes.put(*prefix);
  for (; *text; ++text) {
    const auto byte = static_cast<unsigned char>(*text);
    if (byte >= 32 && byte != 127) {
      bytes.put(*text);
      continue;
    }
    for (const char c : {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]}) bytes.put(c);
  }
  bytes.put('\n');
}

bool standard_error_is_terminal() {
  return ::isatty(STDERR_FILENO) == 1;
}

std::size_t standard_error_columns() {
  constexpr std::size_t kUsual = 80;
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsual;
  return size.ws_col;
}

void write_unless_ended(const std::string& text, bool unfinished) noexcept {
  Line before = line.load();
  do {
    if (before == Line::ended || before == Line::ended_and_written) return;
  } while (!line.compare_exchange_weak(before, Line::in_writing));
  std::fwrite(text.data(), 1, text.size(), stderr);
  Line expected = Line::in_writing;
  if (!line.compare_exchange_strong(expected, unfinished ? Line::unfinished : Line::none))
    line.store(Line::ended_and_written);
}

void end_last_line() noexcept {
  const Line before = line.exchange(Line::ended);
  if (before == Line::in_writing) wait_for_writer();
  if (before != Line::in_writing && before != Line::unfinished) return;
  // To write on a stopped terminal is to wait for its user, and a process that is to end must not.
  pollfd standard_error{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&standard_error, 1, 0) != 1) return;
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, "\n", 1);
}

}  // namespace nvo::platform
