#include <sys/ioctl.h>
#include <unistd.h>

#include "core/platform/terminal.h"

namespace nvo::platform {

bool standard_error_is_terminal() {
  return ::isatty(STDERR_FILENO) == 1;
}

std::size_t standard_error_columns() {
  constexpr std::size_t kUsual = 80;
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsual;
  return size.ws_col;
}

}  // namespace nvo::platform
