#pragma once

#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_dir.h"

namespace nvo::test {

/// A program running with arguments, extra environment and its two outputs in files, or its standard error in
/// the descriptor given.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment,
               int standard_error = -1) {
    const std::string out = outputs_.file("out"), err = outputs_.file("err");
    id_ = ::fork();
    if (id_ < 0) throw std::runtime_error("fork failed");
    if (id_ != 0) return;
    redirect(out, STDOUT_FILENO);
    redirect(err, STDERR_FILENO);
    if (standard_error >= 0) ::dup2(standard_error, STDERR_FILENO);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  ~ChildProcess() {
    if (!waited_) wait();
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return id_; }

  /// Exit code, or minus the number of the signal that ended it.
  int wait() {
    int status = 0;
    ::waitpid(id_, &status, 0);
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  std::string out() const { return read_all(outputs_.file("out")); }
  std::string err() const { return read_all(outputs_.file("err")); }

 private:
  static void redirect(const std::string& path, int descriptor) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(file, descriptor);
    ::close(file);
  }

  TempDir outputs_;
  pid_t id_ = -1;
  bool waited_ = false;
};

struct Outcome {
  int code = 0;  ///< as of `ChildProcess::wait`
  std::string out, err;
};

inline Outcome run_to_end(const std::vector<std::string>& command,
                          const std::map<std::string, std::string>& environment) {
  ChildProcess child(command, environment);
  const int code = child.wait();
  return {code, child.out(), child.err()};
}

}  // namespace nvo::test
