#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
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

#include "core/platform/child_descendants.h"
#include "core/platform/child_process.h"
#include "core/platform/harmless_process.h"

extern char** environ;

namespace nvo::platform {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxDiagnostics = 64 * 1024;
constexpr std::size_t kReadSize = 64 * 1024;
constexpr int kReportDescriptor = 3;  // in the child: carries the error of a failed start
constexpr int kFirstFree = 4;         // the parent's ends stay clear of the numbers that the child fills
constexpr std::uint64_t kOpenFiles = 64;

/// What a child keeps of the environment. Without a home and the folders of fonts and their settings, a page
/// that doesn't bring its fonts would look different.
constexpr std::string_view kKeptVariables[] = {
    "PATH",           "HOME",          "XDG_CONFIG_HOME", "XDG_DATA_HOME",
    "XDG_CACHE_HOME", "XDG_DATA_DIRS", "FONTCONFIG_FILE", "FONTCONFIG_PATH"};

bool is_kept(std::string_view variable) {
  return std::ranges::find(kKeptVariables, variable.substr(0, variable.find('='))) !=
         std::end(kKeptVariables);
}

/// Held while a child runs: which processes came of which child could not be told apart.
std::mutex g_running;

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
      if (is_kept(*variable)) texts.emplace_back(*variable);
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

void set_limits(const ChildLimits& limits) {
  set_limit(RLIMIT_CORE, 0);
  set_limit(RLIMIT_FSIZE, limits.output_file ? limits.standard_output : 0);
  set_limit(RLIMIT_NOFILE, kOpenFiles);
  set_limit(RLIMIT_AS, limits.address_space);
  // Between the two the signal says that it was time which ran out.
  const auto seconds =
      static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::seconds>(limits.time).count());
  const rlimit processor_time{seconds + 1, seconds + 2};
  ::setrlimit(RLIMIT_CPU, &processor_time);
#ifdef __linux__
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
#endif
  if (limits.may_start_processes) return;
  set_limit(RLIMIT_NPROC, 0);  // doesn't bind root; the next does
  stay_harmless();
}

/// The child's side. Only calls that are safe in the copy of a process with several threads.
[[noreturn]] void become(const Start& start) {
#ifdef __linux__
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != start.parent) ::_exit(127);
#endif
  ::setpgid(0, 0);
  ::dup2(start.empty_input.number(), STDIN_FILENO);
  ::dup2(start.limits.output_file ? start.limits.output_file->descriptor() : start.output.write_end.number(),
         STDOUT_FILENO);
  ::dup2(start.diagnostics.write_end.number(), STDERR_FILENO);
  ::dup2(start.report.write_end.number(), kReportDescriptor);
  ::fcntl(kReportDescriptor, F_SETFD, FD_CLOEXEC);
  ::closefrom(kReportDescriptor + 1);

  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXCPU, SIGCHLD})
    ::signal(number, SIG_DFL);
  ::signal(SIGXFSZ, SIG_IGN);  // to write a file fails, as where a cache of fonts can't be kept
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  set_limits(start.limits);

  ::execve(start.arguments[0], start.arguments.data(), start.environment.data());
  const int error = errno;
  [[maybe_unused]] const auto told = ::write(kReportDescriptor, &error, sizeof error);
  ::_exit(127);
}

/// Until the deadline, but not so long that the end of a child whose outputs stay open goes unseen.
int pause_ms(Clock::time_point deadline) {
  constexpr long long longest = 20;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, longest));
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

/// A child that runs, and the end of all that came of it.
class Child {
 public:
  Child(pid_t number, std::vector<pid_t> others) : number_(number), others_(std::move(others)) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    try {
      end();
    } catch (...) {  // the child itself is gone by then; what failed here has an exception of its own
    }
  }

  /// Its number stays its own until `end`.
  bool has_ended() const {
    siginfo_t state{};
    return ::waitid(P_PID, static_cast<id_t>(number_), &state, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           state.si_pid == number_;
  }
  /// Returns the status that the child ended with.
  int end() {
    if (number_ < 0) return status_;
    ::kill(-number_, SIGKILL);
    while (::waitpid(number_, &status_, 0) < 0 && errno == EINTR) {
    }
    number_ = -1;
    end_descendants(others_);
    return status_;
  }

 private:
  pid_t number_;
  std::vector<pid_t> others_;  // children that this process had before
  int status_ = -1;
};

/// Takes what both outputs hold. False when the standard output exceeds its limit.
bool take_ready(Start& start, const pollfd (&ready)[2], ChildResult& result) {
  std::string piece;
  if (ready[0].revents != 0) {
    if (!read_piece(ready[0].fd, piece)) start.output.read_end.close();
    if (piece.size() > start.limits.standard_output - result.output.size()) return false;
    result.output += piece;
  }
  if (ready[1].revents != 0) {
    if (!read_piece(ready[1].fd, piece)) start.diagnostics.read_end.close();
    result.diagnostics.append(piece, 0, kMaxDiagnostics - result.diagnostics.size());
  }
  return true;
}

/// Takes both outputs until the child has ended and nobody writes to them any more. Anything but `exited`
/// means that a limit was met.
ChildEnd follow(Child& child, Start& start, ChildResult& result) {
  const auto deadline = Clock::now() + start.limits.time;
  const Descriptor& output = start.output.read_end;
  const Descriptor& diagnostics = start.diagnostics.read_end;
  for (bool ended = false; !ended || output.is_open() || diagnostics.is_open();) {
    pollfd ready[] = {{output.number(), POLLIN, 0}, {diagnostics.number(), POLLIN, 0}};  // -1 is passed over
    const int count = ::poll(ready, 2, pause_ms(deadline));
    if (count > 0 && !take_ready(start, ready, result)) return ChildEnd::too_much_output;
    if (ended && count == 0) break;  // a writer that couldn't be ended
    if (!ended && child.has_ended()) {
      ended = true;
      child.end();  // whoever still holds the outputs goes with it
    }
    if (!ended && Clock::now() >= deadline) return ChildEnd::timed_out;
  }
  return ChildEnd::exited;
}

void supervise(Child& child, Start& start, ChildResult& result) {
  result.end = follow(child, start, result);
  const int status = child.end();
  if (result.end != ChildEnd::exited) return;
  if (WIFSIGNALED(status)) {
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
  adopt_descendants();
  const std::lock_guard one_at_a_time(g_running);
  std::vector<pid_t> others = own_children();
  pid_t number;
  {
    const SignalsHeld held;
    number = ::fork();
    if (number == 0) become(start);
  }
  if (number < 0) {
    result.code = errno;
    return result;
  }
  Child child(number, std::move(others));
  start.empty_input.close();
  for (Pipe* pipe : {&start.output, &start.diagnostics, &start.report}) pipe->write_end.close();

  std::string report;  // stays empty when the new program begins
  if (read_piece(start.report.read_end.number(), report) && report.size() == sizeof result.code) {
    std::memcpy(&result.code, report.data(), sizeof result.code);
    return result;
  }
  supervise(child, start, result);
  return result;
}

}  // namespace nvo::platform
