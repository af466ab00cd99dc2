#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <string>
#include <string_view>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/platform/child_descendants.h"
#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace nvo::platform {
namespace {

/// The parent in a line of /proc/N/stat, "7 (name) S 5 ..."; the name may hold anything. Or -1.
pid_t parent_in(std::string_view line) {
  const std::size_t name_end = line.rfind(')');
  constexpr std::size_t state = 4;  // ") S "
  pid_t parent = -1;
  if (name_end != std::string_view::npos && name_end + state < line.size())
    std::from_chars(line.data() + name_end + state, line.data() + line.size(), parent);
  return parent;
}

pid_t parent_of(const char* number) {
  const int file = ::open(("/proc/" + std::string(number) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return -1;
  char line[512];
  const ssize_t size = ::read(file, line, sizeof line);
  ::close(file);
  return size > 0 ? parent_in({line, static_cast<std::size_t>(size)}) : -1;
}

/// Some processes cannot be killed at once, but those that can are gone within a moment.
constexpr auto kPatience = std::chrono::seconds(1);

}  // namespace

void adopt_descendants() {
#ifdef __linux__
  ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
#endif
}

std::vector<pid_t> own_children() {
  std::vector<pid_t> children;
  DIR* const processes = ::opendir("/proc");
  if (!processes) return children;
  const pid_t self = ::getpid();
  while (const dirent* entry = ::readdir(processes)) {
    pid_t number = 0;
    const std::string_view name = entry->d_name;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error == std::errc() && end == name.data() + name.size() && parent_of(entry->d_name) == self)
      children.push_back(number);
  }
  ::closedir(processes);
  return children;
}

void end_descendants(const std::vector<pid_t>& others) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    std::vector<pid_t> left = own_children();
    std::erase_if(left, [&](pid_t child) { return std::ranges::find(others, child) != others.end(); });
    if (left.empty() || std::chrono::steady_clock::now() >= deadline) return;
    for (const pid_t child : left) ::kill(child, SIGKILL);
    for (const pid_t child : left)
      while (::waitpid(child, nullptr, WNOHANG) == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace nvo::platform
