#include <atomic>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "core/platform/terminal.h"

namespace nvo::platform {
namespace {

std::atomic<bool> line_is_unfinished{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler reads it");

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

void set_line_unfinished(bool unfinished) noexcept {
  line_is_unfinished.store(unfinished);
}

void end_unfinished_line() noexcept {
  if (!line_is_unfinished.exchange(false)) return;
  // To write on a stopped terminal is to wait for its user, and a process that is to end must not.
  pollfd standard_error{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&standard_error, 1, 0) != 1) return;
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, "\n", 1);
}

}  // namespace nvo::platform
