#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include "core/platform/child_process.h"

extern char** environ;

namespace nvo::platform {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxDiagnostics = 64 * 1024;
constexpr std::size_t kReadSize = 64 * 1024;
constexpr int kReportDescriptor = 3;  // in the child: carries the error of a failed start
constexpr int kFirstFree = 4;         // the parent's ends stay clear of the numbers that the child fills

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { close(); }

  int number() const { return number_; }
  bool is_open() const { return number_ >= 0; }
  void close() {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
  }
  bool move_up() {
    Descriptor moved(::fcntl(number_, F_DUPFD_CLOEXEC, kFirstFree));
    std::swap(number_, moved.number_);
    return is_open();
  }

 private:
  int number_ = -1;
};

struct Pipe {
  Descriptor read_end, write_end;

  bool open() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return false;
    read_end = Descriptor(ends[0]);
    write_end = Descriptor(ends[1]);
    return read_end.move_up() && write_end.move_up();
  }
};

/// Signals wait while a process is split in two: a handler of this program must not run in the child.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &old_);
  }
  ~SignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t old_;
};

/// All that the child needs, laid out before the split: afterwards it may not allocate.
struct Start {
  std::vector<std::string> texts;
  std::vector<char*> arguments, environment;
  Descriptor empty_input;
  Pipe output, diagnostics, report;
  ChildLimits limits;
  pid_t parent = ::getpid();

  Start(const std::vector<std::string>& command, const ChildLimits& given) : texts(command), limits(given) {
    const std::size_t argument_count = texts.size();
    for (char** variable = environ; *variable; ++variable)
      if (std::strncmp(*variable, "LC_ALL=", 7) != 0) texts.emplace_back(*variable);
    texts.emplace_back("LC_ALL=C");
    for (std::size_t i = 0; i < texts.size(); ++i)
      (i < argument_count ? arguments : environment).push_back(texts[i].data());
    arguments.push_back(nullptr);
    environment.push_back(nullptr);
  }

  bool open() {
    empty_input = Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    return empty_input.is_open() && empty_input.move_up() && output.open() && diagnostics.open() &&
           report.open();
  }
};

template <class Resource>
void set_limit(Resource resource, std::uint64_t value) {
  const rlimit limit{value, value};
  ::setrlimit(resource, &limit);
}

/// The child's side. Only calls that are safe in the copy of a process with several threads.
[[noreturn]] void become(const Start& start) {
#ifdef __linux__
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != start.parent) ::_exit(127);
#endif
  ::setpgid(0, 0);
  ::dup2(start.empty_input.number(), STDIN_FILENO);
  ::dup2(start.output.write_end.number(), STDOUT_FILENO);
  ::dup2(start.diagnostics.write_end.number(), STDERR_FILENO);
  ::dup2(start.report.write_end.number(), kReportDescriptor);
  ::fcntl(kReportDescriptor, F_SETFD, FD_CLOEXEC);
  ::closefrom(kReportDescriptor + 1);

  set_limit(RLIMIT_CORE, 0);
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(start.limits.time).count();
  set_limit(RLIMIT_CPU, static_cast<std::uint64_t>(seconds) + 1);
  set_limit(RLIMIT_AS, start.limits.address_space);

  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ, SIGCHLD})
    ::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);

  ::execve(start.arguments[0], start.arguments.data(), start.environment.data());
  const int error = errno;
  [[maybe_unused]] const auto told = ::write(kReportDescriptor, &error, sizeof error);
  ::_exit(127);
}

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 1'000'000));
}

/// Reads once. False at the end of the stream.
bool read_piece(int descriptor, std::string& piece) {
  piece.resize(kReadSize);
  ssize_t count;
  do count = ::read(descriptor, piece.data(), piece.size());
  while (count < 0 && errno == EINTR);
  piece.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return count > 0;
}

/// Takes both outputs until the child closes them. Anything but `exited` means that a limit was met.
ChildEnd take_outputs(Start& start, Clock::time_point deadline, ChildResult& result) {
  Descriptor& output = start.output.read_end;
  Descriptor& diagnostics = start.diagnostics.read_end;
  std::string piece;
  while (output.is_open() || diagnostics.is_open()) {
    pollfd waiting[] = {{output.number(), POLLIN, 0},
                        {diagnostics.number(), POLLIN, 0}};  // -1 is passed over
    const int ready = ::poll(waiting, 2, remaining_ms(deadline));
    if (ready == 0) return ChildEnd::timed_out;
    if (ready < 0) continue;
    if (waiting[0].revents != 0) {
      if (!read_piece(output.number(), piece)) output.close();
      if (piece.size() > start.limits.standard_output - result.output.size())
        return ChildEnd::too_much_output;
      result.output += piece;
    }
    if (waiting[1].revents != 0) {
      if (!read_piece(diagnostics.number(), piece)) diagnostics.close();
      result.diagnostics.append(piece, 0, kMaxDiagnostics - result.diagnostics.size());
    }
  }
  return ChildEnd::exited;
}

/// False when the child still runs at the deadline.
bool await_exit(pid_t child, Clock::time_point deadline, int& status) {
  constexpr auto longest_pause = std::chrono::milliseconds(16);
  for (auto pause = std::chrono::milliseconds(1);; pause = std::min(2 * pause, longest_pause)) {
    const pid_t ended = ::waitpid(child, &status, WNOHANG);
    if (ended == child || (ended < 0 && errno != EINTR)) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
  }
}

void end_group(pid_t child) {
  ::kill(-child, SIGKILL);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void supervise(pid_t child, Start& start, ChildResult& result) {
  const auto deadline = Clock::now() + start.limits.time;
  int status = -1;
  result.end = take_outputs(start, deadline, result);
  if (result.end == ChildEnd::exited && !await_exit(child, deadline, status))
    result.end = ChildEnd::timed_out;
  if (result.end != ChildEnd::exited) {
    end_group(child);
  } else if (WIFSIGNALED(status)) {
    // The processor time of a busy child may run out a moment before the clock does.
    result.end = WTERMSIG(status) == SIGXCPU ? ChildEnd::timed_out : ChildEnd::signalled;
    result.code = WTERMSIG(status);
  } else {
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
}

}  // namespace

std::string find_program(const std::string& name) {
  const char* variable = std::getenv("PATH");
  std::string_view rest = variable ? variable : "/usr/local/bin:/usr/bin:/bin";
  while (!rest.empty()) {
    const std::size_t colon = std::min(rest.find(':'), rest.size());
    const std::string path = std::string(rest.substr(0, colon)) + "/" + name;
    rest.remove_prefix(std::min(colon + 1, rest.size()));
    struct stat status {};
    const bool is_file = ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (path.front() == '/' && is_file && ::access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

ChildResult run_child(const std::vector<std::string>& command, const ChildLimits& limits) {
  ChildResult result;
  Start start(command, limits);
  if (!start.open()) {
    result.code = errno;
    return result;
  }
  pid_t child;
  {
    const SignalsHeld held;
    child = ::fork();
    if (child == 0) become(start);
  }
  if (child < 0) {
    result.code = errno;
    return result;
  }
  start.empty_input.close();
  for (Pipe* pipe : {&start.output, &start.diagnostics, &start.report}) pipe->write_end.close();

  std::string report;  // stays empty when the new program begins
  if (read_piece(start.report.read_end.number(), report) && report.size() == sizeof result.code) {
    std::memcpy(&result.code, report.data(), sizeof result.code);
    end_group(child);
    return result;
  }
  supervise(child, start, result);
  return result;
}

}  // namespace nvo::platform
