#include <atomic>
#include <cstdio>
#include <ctime>

#include <poll.h>
#include <sys/ioctl.h>
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

}  // namespace

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
